// Asks the device from time to time whether it answers and still knows the session, so that the page is up to date without
// a click.

const SHORTEST_MILLISECONDS = 5000;

/**
 * While the page is used or the device cannot be reached, the question comes every few seconds. Each question also keeps
 * the session alive; so that a session that is not used expires, the interval doubles with each question while the page is
 * not touched. A touch, or coming back to the page, asks at once. While it rests, only
 * these and a device that cannot be reached make it ask.
 */
export class ConnectionWatch {
  #client;
  #path;
  #timer = null;
  #interval = SHORTEST_MILLISECONDS;
  #lastQuestion = 0;
  #isStarted = false;
  #isResting = false;
  #isUnreachable = false;
  #touch = () => this.#touched();

  /** @param {string} path the document to ask for: a small one that needs a session */
  constructor(client, path) {
    this.#client = client;
    this.#path = path;
    client.addEventListener("reachable", () => { this.#isUnreachable = false; });
    client.addEventListener("unreachable", () => {
      this.#isUnreachable = true;
      this.#askAgainSoon();
    });
  }

  start() {
    this.stop();
    for (const name of ["pointerdown", "keydown", "focus", "online"])
      window.addEventListener(name, this.#touch);
    document.addEventListener("visibilitychange", this.#touch);
    this.#isStarted = true;
    this.#askAgainSoon();
  }

  /** Lets it rest, while something else shows that the device answers and knows the session, or ends that. */
  set isResting(isResting) {
    this.#isResting = isResting;
    if (this.#isStarted)
      this.#askAgainSoon();
  }

  stop() {
    this.#isStarted = false;
    for (const name of ["pointerdown", "keydown", "focus", "online"])
      window.removeEventListener(name, this.#touch);
    document.removeEventListener("visibilitychange", this.#touch);
    clearTimeout(this.#timer);
    this.#timer = null;
  }

  /** Asks now. The client reports the result by its events. */
  async ask() {
    this.#lastQuestion = Date.now();
    try {
      await this.#client.get(this.#path);
    } catch {
      // The client has reported it.
    }
  }

  #touched() {
    if (document.hidden)
      return;
    const late = Date.now() - this.#lastQuestion > SHORTEST_MILLISECONDS;
    this.#askAgainSoon();
    if (late)
      this.ask();
  }

  #askAgainSoon() {
    this.#interval = SHORTEST_MILLISECONDS;
    this.#schedule();
  }

  #schedule() {
    clearTimeout(this.#timer);
    if (this.#isResting && !this.#isUnreachable)
      return;
    this.#timer = setTimeout(async () => {
      this.#interval *= 2;
      this.#schedule();
      if (!document.hidden)
        await this.ask();
    }, this.#interval);
  }
}
