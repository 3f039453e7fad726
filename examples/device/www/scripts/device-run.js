// What ping and traceroute have in common: a run on the device, one for each session, whose state comes with events and
// can be read.

/**
 * Emits
 * - "event" with the document of an event, and "answer" with the state that was read, null when there is no run;
 * - "refused" with the DeviceError when the state may not be read.
 */
export class DeviceRun extends EventTarget {
  #client;
  #live;
  #type;
  #path;
  #isReading = false;
  #mustReadAgain = false;
  #events = 0;
  #isClosed = false;
  #eventCame = (event) => this.#take(event.detail);
  #asked = (event) => this.#readIfNeeded(event.detail);

  /** Whether polls are needed. */
  isActive = false;

  /** @param {string} type "ping" or "traceroute" */
  constructor(client, live, type) {
    super();
    this.#client = client;
    this.#live = live;
    this.#type = type;
    this.#path = `/api/${type}?section=state`;
  }

  /** Reads the state once; null when there is no run. Throws a DeviceError. */
  async state() {
    try {
      return await this.#client.get(this.#path);
    } catch (error) {
      if (error.status === 404)
        return null;
      throw error;
    }
  }

  /** Emits what happens from now on. */
  follow() {
    this.#live.addEventListener(this.#type, this.#eventCame);
    this.#live.addEventListener("ask", this.#asked);
    this.#live.start();
  }

  close() {
    this.#isClosed = true;
    this.#live.removeEventListener(this.#type, this.#eventCame);
    this.#live.removeEventListener("ask", this.#asked);
    this.#live.stop();
  }

  /** Reads the state and emits it. */
  async read() {
    if (this.#isReading) {
      this.#mustReadAgain = true;
      return;
    }
    this.#isReading = true;
    try {
      do {
        this.#mustReadAgain = false;
        await this.#emitAnswer(() => this.state());
      } while (this.#mustReadAgain && !this.#isClosed);
    } catch (error) {
      if (error.kind === "refused" && !this.#isClosed)
        this.dispatchEvent(new CustomEvent("refused", { detail: error }));
    } finally {
      this.#isReading = false;
    }
  }

  /** Starts a run. Throws a DeviceError; 409 when there is one already. */
  async start(parameters) {
    await this.#emitAnswer(() => this.#client.post(this.#path, parameters));
  }

  /** Stops the run, which the device deletes. Throws a DeviceError. */
  async stop() {
    await this.#emitAnswer(async () => {
      try {
        return await this.#client.remove(this.#path);
      } catch (error) {
        // Another page of the session was quicker.
        if (error.status === 404)
          return null;
        throw error;
      }
    });
  }

  // An event that came in the meantime may be newer than the answer.
  async #emitAnswer(request) {
    const events = this.#events;
    const state = await request();
    if (!this.#isClosed && events === this.#events)
      this.dispatchEvent(new CustomEvent("answer", { detail: state }));
  }

  #take(document) {
    this.#events += 1;
    this.dispatchEvent(new CustomEvent("event", { detail: document }));
  }

  #readIfNeeded({ isPoll }) {
    if (!isPoll || (this.isActive && !this.#isReading))
      this.read();
  }
}
