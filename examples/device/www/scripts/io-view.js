// The inputs and outputs of the device: their state as it changes, and what can be changed.

import { fromTemplate, showField } from "./dom.js";
import { IoPoint, stateText } from "./io-point.js";

const PATH = "/api/io";
const POLL_PATH = `${PATH}?passive=yes`;

export const ioView = {
  name: "io",
  title: "Inputs and outputs",

  async open(container, client, { live }) {
    return new InputsAndOutputs(container, client, live, await client.get(PATH));
  },
};

/** The inputs and outputs of a document in one list. */
function pointsOf({ inputs, outputs }) {
  return [...inputs.map((point) => ({ kind: "input", point })), ...outputs.map((point) => ({ kind: "output", point }))];
}

/** The names of what an input or output of the document is wired to. */
function wiresOf({ kind, point }, { inputs }) {
  if (kind === "input")
    return point.wiredTo === null ? [] : [point.wiredTo];
  return inputs.filter((input) => input.wiredTo === point.name).map((input) => input.name);
}

class InputsAndOutputs {
  #root;
  #client;
  #live;
  #document;
  #points;
  #isReading = false;
  #isClosed = false;
  #eventCame = (event) => this.#take(event.detail);
  #asked = (event) => this.#readIfNeeded(event.detail);

  constructor(root, client, live, document) {
    this.#root = root;
    this.#client = client;
    this.#live = live;
    this.#document = document;
    root.replaceChildren(fromTemplate("io-template"));
    this.#points = pointsOf(document).map((each) => new IoPoint(root.querySelector(`[data-list=${each.kind}s]`), each.kind,
      each.point, wiresOf(each, document), (name, change) => this.#send(name, change)));
    live.addEventListener("io", this.#eventCame);
    live.addEventListener("ask", this.#asked);
    live.start();
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#isClosed = true;
    this.#live.removeEventListener("io", this.#eventCame);
    this.#live.removeEventListener("ask", this.#asked);
    this.#live.stop();
    this.#root.replaceChildren();
  }

  async #send(name, change) {
    this.#take(await this.#client.put(`${PATH}?${new URLSearchParams({ name })}`, change));
  }

  // A poll that the device has not answered yet needs no other.
  async #readIfNeeded({ isPoll }) {
    if (isPoll && this.#isReading)
      return;
    this.#isReading = true;
    try {
      this.#take(await this.#client.get(POLL_PATH));
    } catch (error) {
      this.#showRefusal(error.kind === "refused" ? error.message : "");
    } finally {
      this.#isReading = false;
    }
  }

  // An answer may be older than an event that came before it.
  #take(document) {
    if (this.#isClosed || document.number < this.#document.number)
      return;
    this.#showRefusal("");
    const before = pointsOf(this.#document).map(textOf);
    this.#document = document;
    pointsOf(document).forEach(({ point }, index) => this.#points[index].show(point));
    const news = pointsOf(document).map(textOf).filter((text, index) => text !== before[index]);
    if (news.length > 0)
      showField(this.#root, "announcement", news.join(", "));
  }

  #showRefusal(text) {
    const message = this.#root.querySelector("#io-message");
    if (this.#isClosed || message.textContent === text)
      return;
    message.textContent = text;
    message.hidden = text === "";
  }
}

function textOf({ kind, point }) {
  return `${point.name}: ${stateText(point, kind).toLowerCase()}`;
}
