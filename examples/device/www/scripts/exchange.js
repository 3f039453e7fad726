// One request to the device and its answer, which is waited for as long as something of it comes.

const PATIENCE_MILLISECONDS = 15000;

export class Exchange {
  /** Whether it has ended because nothing came for too long. */
  timedOut = false;

  #path;
  #options;
  #end = new AbortController();
  #body = null;

  /**
   * @param {object} options as fetch() takes them
   * @param {AbortSignal} stop ends the exchange, if there is one
   */
  constructor(path, options, stop = null) {
    this.#path = path;
    this.#options = options;
    if (stop?.aborted)
      this.close();
    stop?.addEventListener("abort", () => this.close(), { signal: this.#end.signal });
  }

  /** Sends the request. The result is the status of the answer. */
  async begin() {
    const response = await this.#inTime(fetch(this.#path, {
      ...this.#options, credentials: "same-origin", cache: "no-store", redirect: "error", signal: this.#end.signal,
    }));
    this.#body = response.body?.getReader() ?? null;
    return response.status;
  }

  /** The text of the answer as it comes in. */
  async *pieces() {
    const decoder = new TextDecoder();
    while (this.#body !== null) {
      const { done, value } = await this.#inTime(this.#body.read());
      yield done ? decoder.decode() : decoder.decode(value, { stream: true });
      if (done)
        return;
    }
  }

  /** The whole text of the answer. */
  async text() {
    let text = "";
    for await (const piece of this.pieces())
      text += piece;
    return text;
  }

  /** Gives up whatever has not come yet. */
  close() {
    this.#end.abort();
  }

  async #inTime(promise) {
    const timer = setTimeout(() => {
      this.timedOut = true;
      this.close();
    }, PATIENCE_MILLISECONDS);
    try {
      return await promise;
    } finally {
      clearTimeout(timer);
    }
  }
}
