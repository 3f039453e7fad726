// A search field above a list that is always open: the combobox pattern of the ARIA Authoring Practices Guide, with the
// focus in the field and the choice in the list. The choice follows the arrow keys.

import { element } from "./dom.js";

const PAGE = 8;

/** Text as it is searched: without accents and case, and with a blank for an underscore. */
export function searchText(text) {
  return text.normalize("NFD").replace(/\p{M}/gu, "").replaceAll("_", " ").toLowerCase();
}

/** Emits "choose" (the entry's id as detail) and "filter" (a Set of the ids that are left). */
export class SearchableList extends EventTarget {
  #input;
  #listbox;
  #entries = [];
  #groups = [];
  #shown = [];
  #chosen = null;

  /**
   * @param {HTMLInputElement} input a field with the role combobox
   * @param {HTMLElement} listbox an empty element with an id and the role listbox
   */
  constructor(input, listbox) {
    super();
    this.#input = input;
    this.#listbox = listbox;
    input.addEventListener("input", () => this.#filter());
    input.addEventListener("keydown", (event) => this.#keyPressed(event));
    listbox.addEventListener("click", (event) => this.#clicked(event));
    // A click in the list leaves the focus, and with it the keyboard, in the field.
    listbox.addEventListener("mousedown", (event) => event.preventDefault());
  }

  /**
   * @param {{id: string, group: string, label: string, hint: string, search: string}[]} entries in order, the ones of a
   *   group together; label and hint are shown, search is what is searched
   */
  setEntries(entries) {
    this.#groups = [];
    this.#entries = entries.map((entry, index) => {
      const option = element("div", { role: "option", id: `${this.#listbox.id}-${index}`, "aria-selected": "false" },
        element("span", { class: "option-label" }, entry.label), element("span", { class: "option-hint" }, entry.hint));
      this.#groupOf(entry, index).element.append(option);
      return { ...entry, index, option, words: searchText(entry.search), labelText: searchText(entry.label) };
    });
    this.#listbox.replaceChildren(...this.#groups.map((group) => group.element));
    this.#filter();
  }

  #groupOf(entry, index) {
    let group = this.#groups.at(-1);
    if (group?.name !== entry.group) {
      const headingId = `${this.#listbox.id}-group-${index}`;
      const heading = element("div", { class: "group-heading", id: headingId, role: "presentation" }, entry.group);
      group = { name: entry.group, heading,
        element: element("div", { role: "group", "aria-labelledby": headingId }, heading) };
      this.#groups.push(group);
    }
    return group;
  }

  get count() {
    return this.#shown.length;
  }

  /** Marks the entry with this id as chosen, or none; a search that hides it is taken away. */
  choose(id) {
    const entry = this.#entries.find((candidate) => candidate.id === id) ?? null;
    if (entry && entry.option.hidden) {
      this.#input.value = "";
      this.#filter();
    }
    this.#chosen?.option.setAttribute("aria-selected", "false");
    this.#chosen = entry;
    entry?.option.setAttribute("aria-selected", "true");
    this.#showActive();
  }

  #filter() {
    const words = searchText(this.#input.value).split(/\s+/).filter((word) => word !== "");
    for (const entry of this.#entries)
      entry.option.hidden = !words.every((word) => entry.words.includes(word));
    for (const group of this.#groups)
      group.element.hidden = group.element.querySelector("[role=option]:not([hidden])") === null;
    this.#shown = this.#entries.filter((entry) => !entry.option.hidden);
    this.#showActive();
    this.dispatchEvent(new CustomEvent("filter", { detail: new Set(this.#shown.map((entry) => entry.id)) }));
  }

  // The active option is the chosen one while the search shows it.
  #showActive() {
    if (!this.#chosen || this.#chosen.option.hidden) {
      this.#input.removeAttribute("aria-activedescendant");
      this.#listbox.scrollTop = 0;
      return;
    }
    this.#input.setAttribute("aria-activedescendant", this.#chosen.option.id);
    this.#scrollTo(this.#chosen.option);
  }

  // Scrolls the list alone: the page stays where it is. A single step scrolls as little as possible, a jump puts the option
  // in the middle. A group's heading covers the top of the list.
  #scrollTo(option) {
    const list = this.#listbox;
    const covered = option.parentElement.firstElementChild.offsetHeight;
    const above = option.offsetTop - covered;
    const below = option.offsetTop + option.offsetHeight - list.clientHeight;
    const leap = 3 * option.offsetHeight;
    if (list.scrollTop > above + leap || list.scrollTop < below - leap)
      list.scrollTop = option.offsetTop - (list.clientHeight - option.offsetHeight) / 2;
    else
      list.scrollTop = Math.max(Math.min(list.scrollTop, above), below);
  }

  #keyPressed(event) {
    if (event.altKey || event.ctrlKey || event.metaKey || event.isComposing)
      return;
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: PAGE, PageUp: -PAGE };
    if (event.key in steps)
      this.#step(steps[event.key]);
    else if (event.key === "Enter")
      this.#announceChoice(this.#isChosenShown() ? this.#chosen : this.#bestMatch());
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

  #isChosenShown() {
    return this.#chosen !== null && !this.#chosen.option.hidden;
  }

  #step(distance) {
    if (this.#shown.length === 0)
      return;
    const last = this.#shown.length - 1;
    let position;
    if (this.#isChosenShown())
      position = this.#shown.indexOf(this.#chosen) + distance;
    else
      position = distance > 0 ? this.#shown.indexOf(this.#bestMatch()) : last;
    this.#announceChoice(this.#shown[Math.max(0, Math.min(last, position))]);
  }

  /** The entry whose own name begins with the search, or else the first one that is left. */
  #bestMatch() {
    const search = searchText(this.#input.value).trim();
    const begins = (entry) => search !== ""
      && (entry.labelText.startsWith(search) || entry.labelText.includes(`/${search}`));
    return this.#shown.find(begins) ?? this.#shown[0];
  }

  #announceChoice(entry) {
    if (!entry)
      return;
    this.choose(entry.id);
    this.dispatchEvent(new CustomEvent("choose", { detail: entry.id }));
  }

  #clicked(event) {
    const option = event.target.closest("[role=option]");
    if (option)
      this.#announceChoice(this.#entries.find((entry) => entry.option === option));
  }
}
