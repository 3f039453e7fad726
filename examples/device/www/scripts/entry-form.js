// The form for an entry of the timetable: to add a new one, or to change one that there is.

import { showField, showPart } from "./dom.js";

/**
 * Emits "save" ({id, entry} as detail; id is null for a new entry), "remove" and "cancel" (the id as detail).
 */
export class EntryForm extends EventTarget {
  #form;
  #message;
  #editedId = null;
  #isBusy = false;

  /** @param {HTMLFormElement} form */
  constructor(form) {
    super();
    this.#form = form;
    this.#message = form.querySelector(".message");
    form.addEventListener("submit", (event) => this.#submitted(event));
    form.addEventListener("input", () => this.#showKind());
    form.addEventListener("keydown", (event) => {
      if (event.key === "Escape" && this.#editedId !== null)
        this.#cancel();
    });
    form.querySelector("[data-action=remove]").addEventListener("click", () => this.#emit("remove", this.#editedId));
    form.querySelector("[data-action=cancel]").addEventListener("click", () => this.#cancel());
    this.reset();
  }

  /** The id of the entry that is being changed, or null. */
  get editedId() {
    return this.#editedId;
  }

  /** Makes it a form for a new entry. */
  reset() {
    this.#form.reset();
    this.#show(null);
  }

  /** Shows an entry to be changed. */
  edit(entry) {
    const { title, kind, day, start, end } = this.#form.elements;
    this.#form.reset();
    title.value = entry.title;
    kind.value = entry.kind;
    for (const box of day)
      box.checked = entry.days.includes(Number(box.value));
    start.value = entry.kind === "event" ? entry.time : entry.start;
    end.value = entry.end ?? "";
    this.#show(entry.id);
    title.focus();
    title.select();
  }

  /** Marks the entry that is being changed in a list of entries. */
  markIn(list) {
    for (const item of list.querySelectorAll("li")) {
      const open = item.querySelector(".entry-open");
      if (Number(item.dataset.id) === this.#editedId)
        open.setAttribute("aria-current", "true");
      else
        open.removeAttribute("aria-current");
    }
  }

  /** Does something that may be refused; the form shows why, and cannot be sent twice meanwhile. */
  async during(action) {
    this.#isBusy = true;
    try {
      await action();
    } catch (error) {
      this.#tell(error.kind === "unreachable" ? "" : error.message);
    } finally {
      this.#isBusy = false;
    }
  }

  #show(id) {
    this.#editedId = id;
    showField(this.#form, "heading", id === null ? "Add an entry" : "Change the entry");
    showField(this.#form, "submit", id === null ? "Add" : "Save");
    showPart(this.#form, "editing", id !== null);
    this.#tell("");
    this.#showKind();
  }

  #showKind() {
    const { kind, start, end } = this.#form.elements;
    const isSlot = kind.value === "slot";
    showPart(this.#form, "end", isSlot);
    showField(this.#form, "start-label", isSlot ? "From" : "At");
    let hint = "";
    if (isSlot && start.value !== "" && end.value !== "" && end.value <= start.value)
      hint = end.value === start.value ? "Lasts 24 hours." : "Ends on the next day.";
    showField(this.#form, "hint", hint);
  }

  #submitted(event) {
    event.preventDefault();
    if (this.#isBusy)
      return;
    const fault = this.#fault();
    this.#tell(fault ? fault.text : "");
    if (fault)
      fault.field.focus();
    else
      this.#emit("save", { id: this.#editedId, entry: this.#entry() });
  }

  #fault() {
    const { title, kind, day, start, end } = this.#form.elements;
    if (title.value.trim() === "")
      return { field: title, text: "Give the entry a title." };
    if (![...day].some((box) => box.checked))
      return { field: day[0], text: "Choose at least one day." };
    if (start.value === "")
      return { field: start, text: kind.value === "slot" ? "Say when it starts." : "Say when it happens." };
    if (kind.value === "slot" && end.value === "")
      return { field: end, text: "Say when it ends." };
    return null;
  }

  #entry() {
    const { title, kind, day, start, end } = this.#form.elements;
    const days = [...day].filter((box) => box.checked).map((box) => Number(box.value));
    const common = { title: title.value.trim(), kind: kind.value, days };
    return kind.value === "event"
      ? { ...common, time: start.value } : { ...common, start: start.value, end: end.value };
  }

  #cancel() {
    const id = this.#editedId;
    this.reset();
    this.#emit("cancel", id);
  }

  #tell(text) {
    this.#message.textContent = text;
    this.#message.hidden = text === "";
  }

  #emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}
