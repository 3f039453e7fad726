// The form for an entry of the timetable: to add a new one, or to change one that there is.

import { showField, showPart } from "./dom.js";
import { FormMessage } from "./form-messages.js";

// How the device's refusals begin, with the fields that they are about.
const REFUSED_FIELDS = { "The title": "title", "The days": "day", "The time": "start", "The start": "start",
  "The end": "end" };

/**
 * The time of the day that was typed, as "06:30", or an empty text. The fields are text fields, since those of
 * the type "time" show 12 hours in some languages. A separator may be missing: "630" is meant as "6:30".
 */
function timeOf(text) {
  const [, hour, minute] = text.trim().match(/^(\d{1,2})[:.h ]?(\d{2})$/) ?? [];
  return hour !== undefined && Number(hour) < 24 && Number(minute) < 60 ? `${hour.padStart(2, "0")}:${minute}` : "";
}

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
    this.#message = new FormMessage(form, form.querySelector(".message"));
    form.addEventListener("submit", (event) => this.#submitted(event));
    form.addEventListener("input", () => this.#showKind());
    for (const field of [form.elements.start, form.elements.end]) {
      field.addEventListener("change", () => {
        field.value = timeOf(field.value) || field.value;
        this.#showKind();
      });
    }
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
      this.#showRefusal(error);
    } finally {
      this.#isBusy = false;
    }
  }

  #show(id) {
    this.#editedId = id;
    showField(this.#form, "heading", id === null ? "Add an entry" : "Change the entry");
    showField(this.#form, "submit", id === null ? "Add" : "Save");
    showPart(this.#form, "editing", id !== null);
    this.#message.show("");
    this.#showKind();
  }

  #showKind() {
    const { kind, start, end } = this.#form.elements;
    const isSlot = kind.value === "slot";
    showPart(this.#form, "end", isSlot);
    showField(this.#form, "start-label", isSlot ? "From" : "At");
    const [from, to] = [timeOf(start.value), timeOf(end.value)];
    let hint = "";
    if (isSlot && from !== "" && to !== "" && to <= from)
      hint = to === from ? "Lasts 24 hours." : "Ends on the next day.";
    showField(this.#form, "hint", hint);
  }

  #submitted(event) {
    event.preventDefault();
    if (this.#isBusy)
      return;
    const fault = this.#fault();
    this.#message.show(fault ? fault.text : "", fault?.fields);
    if (fault)
      fault.fields[0].focus();
    else
      this.#emit("save", { id: this.#editedId, entry: this.#entry() });
  }

  #fault() {
    const { title, kind, day, start, end } = this.#form.elements;
    const isSlot = kind.value === "slot";
    if (title.value.trim() === "")
      return { fields: [title], text: "Give the entry a title." };
    if (![...day].some((box) => box.checked))
      return { fields: [...day], text: "Choose at least one day." };
    return timeFault(start, isSlot ? "Say when it starts." : "Say when it happens.")
      ?? (isSlot ? timeFault(end, "Say when it ends.") : null);
  }

  #showRefusal(error) {
    const beginning = Object.keys(REFUSED_FIELDS).find((words) => error.message.startsWith(words));
    const fields = error.kind === "refused" && beginning ? [this.#form.elements[REFUSED_FIELDS[beginning]]].flatMap(
      (field) => (field instanceof RadioNodeList ? [...field] : field)) : [];
    this.#message.show(error.kind === "unreachable" ? "" : error.message, fields);
    fields[0]?.focus();
  }

  #entry() {
    const { title, kind, day, start, end } = this.#form.elements;
    const days = [...day].filter((box) => box.checked).map((box) => Number(box.value));
    const common = { title: title.value.trim(), kind: kind.value, days };
    return kind.value === "event" ? { ...common, time: timeOf(start.value) }
      : { ...common, start: timeOf(start.value), end: timeOf(end.value) };
  }

  #cancel() {
    const id = this.#editedId;
    this.reset();
    this.#emit("cancel", id);
  }

  #emit(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}

function timeFault(field, missing) {
  if (field.value.trim() === "")
    return { fields: [field], text: missing };
  return timeOf(field.value) ? null
    : { fields: [field], text: "A time has hours and minutes, from 00:00 to 23:59, for example 06:30." };
}
