// What happens on the device, as it happens: the event stream of the session. Where it cannot be had, the views poll.

const PATH = "/api/stream";
const TYPES = ["io", "ping", "traceroute", "firmware", "firmware-message", "media"];
const STATE_PATH = "/api/device?passive=yes"; // needs a session, and does not keep it alive

// The device sends an event every 15 seconds at least. A connection may break without a sign.
const SILENCE_MILLISECONDS = 40000;
const POLL_MILLISECONDS = 2000;
const RETRY_MILLISECONDS = 30000;

/**
 * Emits the events of the stream by their type, such as "ping", with the document as detail; furthermore
 * - "live" when the stream is open, and "lost" when it has ended;
 * - "ask" when the views should read their state. The detail says whether that is a poll, which is only needed by a
 *   view in which something happens.
 *
 * A session has one stream: with each further page that opens one, the earlier page gets "replaced" and polls. It opens
 * the stream again when the user comes back to it.
 */
export class LiveEvents extends EventTarget {
  #client;
  #source = null;
  #isLive = false;
  #isReplaced = false;
  #isReachable = true;
  #silenceTimer = null;
  #retryTimer = null;
  #pollTimer = null;
  #noteReachable = () => this.#reached();
  #noteUnreachable = () => { this.#isReachable = false; };
  #comeBack = () => this.#cameBack();

  constructor(client) {
    super();
    this.#client = client;
  }

  /** Opens the stream. */
  start() {
    this.stop();
    this.#isReplaced = false;
    this.#isReachable = true;
    this.#client.addEventListener("reachable", this.#noteReachable);
    this.#client.addEventListener("unreachable", this.#noteUnreachable);
    document.addEventListener("visibilitychange", this.#comeBack);
    this.#connect();
    this.#pollLater();
  }

  stop() {
    this.#client.removeEventListener("reachable", this.#noteReachable);
    this.#client.removeEventListener("unreachable", this.#noteUnreachable);
    document.removeEventListener("visibilitychange", this.#comeBack);
    clearTimeout(this.#pollTimer);
    this.#disconnect();
  }

  #connect() {
    this.#disconnect();
    const source = new EventSource(PATH);
    this.#source = source;
    source.addEventListener("open", () => this.#opened());
    source.addEventListener("error", () => this.#failed());
    // A stream that is taken up again has neither, but what has happened in between.
    for (const type of ["begin", "missed"])
      source.addEventListener(type, () => this.#ask(false));
    source.addEventListener("replaced", () => {
      this.#isReplaced = true;
      this.#disconnect();
    });
    source.addEventListener("alive", () => this.#expectEvents());
    for (const type of TYPES) {
      source.addEventListener(type, (event) => {
        this.#expectEvents();
        this.dispatchEvent(new CustomEvent(type, { detail: JSON.parse(event.data) }));
      });
    }
  }

  #disconnect() {
    clearTimeout(this.#silenceTimer);
    clearTimeout(this.#retryTimer);
    this.#source?.close();
    this.#source = null;
    this.#setLive(false);
  }

  #setLive(isLive) {
    if (isLive === this.#isLive)
      return;
    this.#isLive = isLive;
    this.dispatchEvent(new Event(isLive ? "live" : "lost"));
  }

  #opened() {
    this.#expectEvents();
    this.#setLive(true);
    this.#client.dispatchEvent(new Event("reachable"));
  }

  #expectEvents() {
    clearTimeout(this.#silenceTimer);
    this.#silenceTimer = setTimeout(() => {
      this.#connect();
      this.#findReason();
    }, SILENCE_MILLISECONDS);
  }

  // The browser tries again by itself, unless the answer was something else than a stream.
  #failed() {
    const isFirst = this.#isLive || this.#source.readyState === EventSource.CLOSED;
    clearTimeout(this.#silenceTimer);
    this.#setLive(false);
    if (this.#source.readyState === EventSource.CLOSED)
      this.#retryTimer = setTimeout(() => this.#connect(), RETRY_MILLISECONDS);
    if (isFirst)
      this.#findReason();
  }

  /** Makes the client report a device that cannot be reached or a session that has ended. */
  async #findReason() {
    try {
      await this.#client.get(STATE_PATH);
    } catch {
      // The client has reported it.
    }
  }

  #reached() {
    const wasReachable = this.#isReachable;
    this.#isReachable = true;
    if (!wasReachable && this.#source?.readyState === EventSource.CLOSED)
      this.#connect();
  }

  #cameBack() {
    if (document.hidden || !this.#isReplaced)
      return;
    this.#isReplaced = false;
    this.#connect();
  }

  #ask(isPoll) {
    this.dispatchEvent(new CustomEvent("ask", { detail: { isPoll } }));
  }

  #pollLater() {
    this.#pollTimer = setTimeout(() => {
      if (!this.#isLive && this.#isReachable && !document.hidden)
        this.#ask(true);
      this.#pollLater();
    }, POLL_MILLISECONDS);
  }
}
