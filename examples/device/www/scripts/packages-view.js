// The open-source packages of the device: a searchable and sortable table, with the source and the licence texts of the
// chosen one below its row. A firmware may have thousands of packages, so rows are made as the table is scrolled.

import { element, fromTemplate } from "./dom.js";
import { PackageList } from "./packages.js";
import { searchText } from "./searchable-list.js";

export const packagesView = {
  name: "packages",
  title: "Packages",

  async open(container, client, { stop, report }) {
    const list = new PackageList(client);
    await list.load(stop, report);
    return new Packages(container, list);
  },
};

const PAGE = 10;
const ROWS_AT_ONCE = 50;
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

const COLLATOR = new Intl.Collator("en", { numeric: true });

class Packages {
  #root;
  #list;
  #input;
  #body;
  #more;
  #moreSeen;
  #entries;
  #sortKey = "name";
  #isDescending = false;
  #shown = []; // what the search leaves, in order; the first ones of them have rows in the table
  #rowCount = 0;
  #tabStop = null;
  #chosen = null;
  #details = null;
  #texts = [];

  constructor(root, list) {
    this.#root = root;
    this.#list = list;
    root.replaceChildren(fromTemplate("packages-template"));
    this.#input = root.querySelector("#package-search");
    this.#body = root.querySelector("tbody");
    this.#more = root.querySelector("[data-action=more]");
    this.#entries = list.entries.map((each) => (
      { ...each, row: null, button: null, words: searchText([each.name, each.version, each.licenses].join("\n")) }));
    this.#body.addEventListener("click", (event) => this.#clicked(event));
    this.#body.addEventListener("keydown", (event) => this.#rowKeyPressed(event));
    this.#more.addEventListener("click", () => this.#showMoreAndFocus());
    this.#input.addEventListener("input", () => this.#filter());
    this.#input.addEventListener("keydown", (event) => this.#searchKeyPressed(event));
    for (const button of root.querySelectorAll("[data-sort]"))
      button.addEventListener("click", () => this.#sortBy(button.dataset.sort));
    // Rows are added before the end of the table comes into view.
    this.#moreSeen = new IntersectionObserver((changes) => {
      if (changes.some((change) => change.isIntersecting))
        this.#showMore();
    }, { rootMargin: "600px" });
    this.#moreSeen.observe(this.#more);
    this.#sort();
  }

  // Of all rows only one is a stop of the Tab key; the arrow keys go through the others.
  #makeRow(entry, index) {
    if (!entry.row) {
      entry.button = element("button", { type: "button", class: "package-name", tabindex: "-1", "aria-expanded": "false" },
        entry.name);
      entry.row = element("tr", {},
        element("th", { scope: "row" }, entry.button), element("td", { class: "package-version" }, entry.version),
        element("td", { class: "package-licenses" }, entry.licenses || "not stated"));
    }
    // The row of the headings is the first one.
    entry.row.setAttribute("aria-rowindex", index + 2);
    return entry.row;
  }

  /** Shows the package of this name; another name shows none. */
  show(name) {
    const entry = this.#entries.find((candidate) => candidate.name === name) ?? null;
    if (entry === this.#chosen)
      return;
    if (entry && !this.#shown.includes(entry))
      this.#clear();
    this.#choose(entry);
    entry?.row.scrollIntoView({ block: "nearest" });
  }

  close() {
    this.#moreSeen.disconnect();
    this.#choose(null);
    this.#root.replaceChildren();
  }

  #sortBy(sortKey) {
    this.#isDescending = sortKey === this.#sortKey && !this.#isDescending;
    this.#sortKey = sortKey;
    this.#sort();
  }

  #sort() {
    const key = this.#sortKey;
    const sign = this.#isDescending ? -1 : 1;
    this.#entries.sort((one, other) => sign * COLLATOR.compare(one[key], other[key])
      || COLLATOR.compare(one.name, other.name));
    for (const button of this.#root.querySelectorAll("[data-sort]")) {
      const heading = button.closest("th");
      if (button.dataset.sort === key)
        heading.setAttribute("aria-sort", this.#isDescending ? "descending" : "ascending");
      else
        heading.removeAttribute("aria-sort");
    }
    this.#filter();
  }

  #filter() {
    const words = searchText(this.#input.value).split(/\s+/).filter((word) => word !== "");
    this.#shown = this.#entries.filter((entry) => words.every((word) => entry.words.includes(word)));
    this.#rowCount = 0;
    this.#body.replaceChildren();
    this.#body.parentElement.setAttribute("aria-rowcount", this.#shown.length + 1);
    this.#showMore();
    this.#setTabStop(this.#chosen?.row.parentElement ? this.#chosen : this.#shown[0]);
    const total = this.#entries.length;
    const count = this.#shown.length;
    const unit = total === 1 ? "package" : "packages";
    let text = count === total ? `${total} ${unit}` : `${count} of ${total} ${unit}`;
    if (count === 0)
      text = total > 0 ? "No package matches." : "The device has no list of its packages.";
    this.#root.querySelector(".package-count").textContent = text;
  }

  #showMore() {
    this.#showUntil(this.#rowCount + ROWS_AT_ONCE);
    // An observer reports changes only: when the end of the table is in view still, it has to look again.
    this.#moreSeen.unobserve(this.#more);
    this.#moreSeen.observe(this.#more);
  }

  /** Makes the rows of the first packages, so many of them. */
  #showUntil(count) {
    const first = this.#rowCount;
    this.#rowCount = Math.max(first, Math.min(count, this.#shown.length));
    const rows = this.#shown.slice(first, this.#rowCount).flatMap((entry, index) => {
      const row = this.#makeRow(entry, first + index);
      return entry === this.#chosen && this.#details ? [row, this.#details] : [row];
    });
    this.#body.append(...rows);
    this.#more.hidden = this.#rowCount === this.#shown.length;
    this.#more.textContent = `Show more (${this.#rowCount} of ${this.#shown.length} are shown)`;
  }

  // The button moves on with each row, or goes; the focus is on the first of the new rows.
  #showMoreAndFocus() {
    const first = this.#rowCount;
    this.#showMore();
    this.#focusOn(first);
  }

  #setTabStop(entry) {
    this.#tabStop?.button.setAttribute("tabindex", "-1");
    this.#tabStop = entry ?? null;
    entry?.button.setAttribute("tabindex", "0");
  }

  #clicked(event) {
    const row = event.target.closest("tr");
    const entry = this.#shown.find((candidate) => candidate.row === row);
    if (!entry)
      return;
    this.#choose(entry === this.#chosen ? null : entry);
    // Replaced, not added: a step back leaves the view, and does not go through the packages again.
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
    this.#showUntil(position + 1);
    this.#setTabStop(entry);
    entry.button.focus();
  }

  #choose(entry) {
    this.#chosen?.button?.setAttribute("aria-expanded", "false");
    this.#chosen?.row?.classList.remove("package-chosen");
    this.#details?.remove();
    this.#details = null;
    this.#texts.forEach((text) => text.close());
    this.#chosen = entry;
    if (!entry)
      return;
    this.#showUntil(this.#shown.indexOf(entry) + 1);
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

/** A licence text that is requested, and put into the page, only when it is opened. */
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
