// What the device reports about firmware updates and removable media: read when it is needed, and followed by events.

const STATE_PATH = "/api/firmware";
const PACKAGES_PATH = "/api/firmware?section=packages";
const MESSAGES_PATH = "/api/firmware-messages";
const MEDIA_PATH = "/api/media";

/**
 * Emits "state", "messages" and "media" when these members have changed. There is one installation for all sessions.
 */
export class FirmwareState extends EventTarget {
  /** The status object of the service. */
  state = { state: "idle" };
  /** What the update daemon has reported in words about the latest installation. */
  messages = [];
  /** The removable media, each with the packages on it. */
  media = [];

  #client;
  #live;
  #eventCounts = { state: 0, messages: 0, media: 0 };
  #isClosed = false;
  #stateCame = (event) => this.#takeState(event.detail);
  #messageCame = (event) => this.#takeMessage(event.detail);
  #mediaCame = (event) => this.#takeMedia(event.detail);
  #asked = (event) => this.#readAgain(event.detail.isPoll);

  constructor(client, live) {
    super();
    this.#client = client;
    this.#live = live;
  }

  /** Reads everything. Throws a DeviceError. */
  async read() {
    await this.readState();
    await Promise.all([this.#readMessages(), this.readMedia()]);
  }

  async readState() {
    await this.#take("state", () => this.#client.get(STATE_PATH));
  }

  async readMedia() {
    await this.#take("media", async () => {
      const [media, packages] = await Promise.all([this.#client.get(MEDIA_PATH), this.#client.get(PACKAGES_PATH)]);
      return withPackages(media, packages);
    });
  }

  /** Emits what happens from now on. */
  follow() {
    this.#live.addEventListener("firmware", this.#stateCame);
    this.#live.addEventListener("firmware-message", this.#messageCame);
    this.#live.addEventListener("media", this.#mediaCame);
    this.#live.addEventListener("ask", this.#asked);
    this.#live.start();
  }

  close() {
    this.#isClosed = true;
    this.#live.removeEventListener("firmware", this.#stateCame);
    this.#live.removeEventListener("firmware-message", this.#messageCame);
    this.#live.removeEventListener("media", this.#mediaCame);
    this.#live.removeEventListener("ask", this.#asked);
    this.#live.stop();
  }

  /** Has the device install a package that is on a medium. Throws a DeviceError. */
  async install(media, packageFileName) {
    await this.#take("state", () => this.#client.post(STATE_PATH, { media, packageFileName }));
  }

  /** Whether an installation is in progress, as far as the device knows. */
  get isRunning() {
    return ["starting", "installing"].includes(this.state.state) && !this.isLost;
  }

  /** Whether the daemon has stopped answering before the end of an installation. */
  get isLost() {
    return ["starting", "installing"].includes(this.state.state) && this.messages.at(-1)?.status === "unknown";
  }

  // An event that came in the meantime may be newer than the answer.
  async #take(name, request) {
    const count = this.#eventCounts[name];
    const answer = await request();
    if (!this.#isClosed && count === this.#eventCounts[name])
      this.#set(name, answer);
  }

  #set(name, value) {
    this[name] = value;
    this.dispatchEvent(new Event(name));
  }

  async #readMessages() {
    await this.#take("messages", () => this.#client.get(MESSAGES_PATH));
  }

  #takeState(state) {
    this.#eventCounts.state += 1;
    // The daemon answers again.
    if (this.messages.at(-1)?.status === "unknown") {
      this.#eventCounts.messages += 1;
      this.#set("messages", this.messages.slice(0, -1));
    }
    // The messages of the earlier installation are gone.
    if (state.state === "starting")
      this.#quietly(() => this.#readMessages());
    this.#set("state", state);
  }

  #takeMessage(message) {
    this.#eventCounts.messages += 1;
    const known = message.isFirst ? [] : this.messages.filter(({ number }) => number < message.number);
    this.#set("messages", [...known, message]);
  }

  #takeMedia(media) {
    this.#eventCounts.media += 1;
    const known = Object.fromEntries(this.media.map(({ name, packages }) => [name, packages]));
    this.#set("media", withPackages(media, known));
    // The event does not say which packages there are.
    this.#quietly(() => this.readMedia());
  }

  // The requests for messages and media do not keep the session alive, that for the state does: a poll asks for it only
  // while something happens.
  #readAgain(isPoll) {
    this.#quietly(async () => {
      const known = JSON.stringify(this.messages);
      await Promise.all([this.#readMessages(), isPoll ? this.#pollMedia() : this.readMedia()]);
      if (!isPoll || this.isRunning || JSON.stringify(this.messages) !== known)
        await this.readState();
    });
  }

  async #pollMedia() {
    const media = await this.#client.get(MEDIA_PATH);
    const names = (list) => list.map(({ name, label }) => `${name} ${label}`).join("\n");
    if (names(media) !== names(this.media))
      await this.readMedia();
  }

  async #quietly(action) {
    try {
      await action();
    } catch {
      // The client has reported it.
    }
  }
}

function withPackages(media, packages) {
  return media.map((medium) => ({ ...medium, packages: packages[medium.name] ?? [] }));
}
