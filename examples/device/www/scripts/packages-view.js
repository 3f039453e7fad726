// The open-source packages of the device: a searchable table, with the source and the licence texts of the chosen one
// below its row.

import { element, fromTemplate } from "./dom.js";
import { PackageList } from "./packages.js";
import { searchText } from "./searchable-list.js";

export const packagesView = {
  name: "packages",
  title: "Packages",

  async open(container, client, { stop, tell }) {
    const list = new PackageList(client);
    await list.load(stop, tell);
    return new Packages(container, list);
  },
};

const PAGE = 10;
const LINKED_PROTOCOLS = ["http:", "https:", "ftp:"];

/** The address as a link, unless opening it could do anything but go to another site. */
function linkTo(address) {
  try {
    if (LINKED_PROTOCOLS.includes(new URL(address).protocol))
      return element("a", { href: address, target: "_blank", rel: "noopener noreferrer" }, address);
  } catch {
    // No address.
  }
  return address;
}

class Packages {
  #root;
  #list;
  #input;
  #entries;
  #shown = [];
  #chosen = null;
  #details = null;
  #texts = [];

  constructor(root, list) {
    this.#root = root;
    this.#list = list;
    root.replaceChildren(fromTemplate("packages-template"));
    this.#input = root.querySelector("#package-search");
    this.#entries = list.entries.map((each, index) => this.#entryOf(each, index));
    const body = root.querySelector("tbody");
    body.replaceChildren(...this.#entries.map((entry) => entry.row));
    body.addEventListener("click", (event) => this.#clicked(event));
    body.addEventListener("keydown", (event) => this.#rowKeyPressed(event));
    this.#input.addEventListener("input", () => this.#filter());
    this.#input.addEventListener("keydown", (event) => this.#searchKeyPressed(event));
    this.#filter();
  }

  // Of all rows only one is a stop of the Tab key; the arrow keys go through the others.
  #entryOf(each, index) {
    const button = element("button", { type: "button", class: "package-name", tabindex: "-1", "aria-expanded": "false",
      "data-index": index }, each.name);
    const row = element("tr", {},
      element("th", { scope: "row" }, button), element("td", { class: "package-version" }, each.version),
      element("td", { class: "package-licenses" }, each.licenses || "not stated"));
    return { ...each, row, button, words: searchText([each.name, each.version, each.licenses].join("\n")) };
  }

  /** Shows the package of this name; another name shows none. */
  show(name) {
    const entry = this.#entries.find((candidate) => candidate.name === name) ?? null;
    if (entry === this.#chosen)
      return;
    if (entry?.row.hidden) {
      this.#input.value = "";
      this.#filter();
    }
    this.#choose(entry);
    entry?.row.scrollIntoView({ block: "nearest" });
  }

  focus() {
    // On a phone the focus would bring up the keyboard over half of the page.
    const hasKeyboard = window.matchMedia("(pointer: fine)").matches;
    this.#root.querySelector(hasKeyboard ? "#package-search" : "h1").focus();
  }

  close() {
    this.#choose(null);
    this.#root.replaceChildren();
  }

  #filter() {
    const words = searchText(this.#input.value).split(/\s+/).filter((word) => word !== "");
    for (const entry of this.#entries)
      entry.row.hidden = !words.every((word) => entry.words.includes(word));
    this.#shown = this.#entries.filter((entry) => !entry.row.hidden);
    if (this.#details)
      this.#details.hidden = this.#chosen.row.hidden;
    this.#setTabStop(this.#shown.includes(this.#chosen) ? this.#chosen : this.#shown[0]);
    const total = this.#entries.length;
    const count = this.#shown.length;
    let text = count === total ? `${total} packages` : `${count} of ${total} packages`;
    if (count === 0)
      text = total > 0 ? "No package matches." : "The device has no list of its packages.";
    this.#root.querySelector(".package-count").textContent = text;
  }

  #setTabStop(entry) {
    this.#root.querySelector(".package-name[tabindex='0']")?.setAttribute("tabindex", "-1");
    entry?.button.setAttribute("tabindex", "0");
  }

  #clicked(event) {
    const row = event.target.closest("tr");
    const entry = this.#entries.find((candidate) => candidate.row === row);
    if (!entry)
      return;
    this.#choose(entry === this.#chosen ? null : entry);
    // Replaced, not added: with a step back somebody wants to leave, not to see each package again.
    history.replaceState(null, "", `#packages${this.#chosen ? `/${encodeURIComponent(this.#chosen.name)}` : ""}`);
  }

  #searchKeyPressed(event) {
    if (event.key === "ArrowDown" || event.key === "Enter")
      this.#focusOn(0);
    else if (event.key === "Escape" && this.#input.value !== "")
      this.#clear();
    else
      return;
    event.preventDefault();
  }

  #clear() {
    this.#input.value = "";
    this.#filter();
  }

  #rowKeyPressed(event) {
    const button = event.target.closest(".package-name");
    if (!button || event.altKey || event.ctrlKey || event.metaKey)
      return;
    const last = this.#shown.length - 1;
    const position = this.#shown.findIndex((entry) => entry.button === button);
    const positions = {
      ArrowDown: position + 1, ArrowUp: position - 1, PageDown: Math.min(position + PAGE, last),
      PageUp: Math.max(position - PAGE, 0), Home: 0, End: last,
    };
    if (event.key === "Escape")
      this.#input.focus();
    else if (event.key in positions)
      this.#focusOn(positions[event.key]);
    else
      return;
    event.preventDefault();
  }

  /** Above the first row is the search. */
  #focusOn(position) {
    if (position < 0) {
      this.#input.focus();
      return;
    }
    const entry = this.#shown[position];
    if (!entry)
      return;
    this.#setTabStop(entry);
    entry.button.focus();
  }

  #choose(entry) {
    this.#chosen?.button.setAttribute("aria-expanded", "false");
    this.#chosen?.row.classList.remove("package-chosen");
    this.#details?.remove();
    this.#details = null;
    this.#texts.forEach((text) => text.close());
    this.#chosen = entry;
    if (!entry)
      return;
    entry.button.setAttribute("aria-expanded", "true");
    entry.row.classList.add("package-chosen");
    this.#setTabStop(entry);
    this.#texts = entry.files.map((file) => new LicenseText(this.#list, entry.name, file));
    this.#details = detailsOf(entry, this.#texts);
    entry.row.after(this.#details);
  }
}

function detailsOf({ sourceSite, sourceArchive }, texts) {
  const facts = [["Source", sourceArchive], ["From", sourceSite ? linkTo(sourceSite) : ""]]
    .filter(([, value]) => value !== "")
    .map(([term, value]) => element("div", {}, element("dt", {}, term), element("dd", {}, value)));
  const none = element("p", { class: "package-none" }, "The device has no licence text of this package.");
  return element("tr", { class: "package-details" }, element("td", { colspan: "3" },
    element("dl", {}, ...facts), ...(texts.length > 0 ? texts.map((text) => text.element) : [none])));
}

/** A licence text that is asked for, and put into the page, only when somebody wants to read it. */
class LicenseText {
  element;

  #list;
  #packageName;
  #file;
  #stop = null;
  #isShown = false;

  constructor(list, packageName, file) {
    this.#list = list;
    this.#packageName = packageName;
    this.#file = file;
    this.element = element("details", { class: "package-text" }, element("summary", {}, `Licence text: ${file}`));
    this.element.addEventListener("toggle", () => this.#toggled());
  }

  /** Asks no further. */
  close() {
    this.#stop?.abort();
  }

  async #toggled() {
    this.close();
    if (!this.element.open || this.#isShown)
      return;
    const stop = new AbortController();
    this.#stop = stop;
    this.#show(element("p", { class: "package-none", role: "status" }, "Reading the text from the device …"));
    try {
      const text = await this.#list.licenseText(this.#packageName, this.#file, stop.signal);
      this.#show(element("pre", { tabindex: "0", "aria-label": `${this.#file} of ${this.#packageName}` },
        text || "This file is empty or missing on the device."));
      this.#isShown = true;
    } catch (error) {
      if (!stop.signal.aborted)
        this.#show(element("p", { class: "package-none", role: "alert" }, error.message));
    }
  }

  #show(content) {
    this.element.replaceChildren(this.element.firstChild, content);
  }
}
