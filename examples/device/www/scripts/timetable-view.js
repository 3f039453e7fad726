// The weekly timetable of the device: the week as a picture, the entries with a form to add and change them, and what
// happens because of them, as it happens.

import { DAYS, DeviceClock, dayOf, millisecondsOf, timeText } from "./device-clock.js";
import { element, fromTemplate, showField, showPart } from "./dom.js";
import { EntryForm } from "./entry-form.js";
import { WeekPlan, tintOf } from "./week-plan.js";

const PATH = "/api/events";
const QUESTION_MILLISECONDS = 2000;
const SHOWN_FIRINGS = 100;

const HAPPENING_TEXTS = { triggered: "happened", started: "started", ended: "ended" };

export const timetableView = {
  name: "timetable",
  title: "Timetable",

  async open(container, client) {
    return new Timetable(container, client, await client.get(PATH));
  },
};

/** The days in words: "Every day", "Mon–Fri", "Mon, Thu". */
function daysText(days) {
  if (days.length === DAYS.length)
    return "Every day";
  const name = (day) => DAYS[day - 1].slice(0, 3);
  const isRange = days.length > 2 && days.at(-1) - days[0] === days.length - 1;
  return isRange ? `${name(days[0])}–${name(days.at(-1))}` : days.map(name).join(", ");
}

function timesText(entry) {
  return entry.kind === "event" ? entry.time : `${entry.start}–${entry.end}`;
}

/** Where a time is in the week. */
function placeOf(date) {
  return { day: dayOf(date), minute: date.getUTCHours() * 60 + date.getUTCMinutes() };
}

class Timetable {
  #root;
  #client;
  #week;
  #form;
  #list;
  #firingList;
  #clock = new DeviceClock();
  #number = 0;
  #entries = [];
  #removed = null;
  #isClosed = false;
  #questionTimer = null;
  #clockTimer = null;
  #comeBack = () => this.#askAgain();

  constructor(root, client, firstAnswer) {
    this.#root = root;
    this.#client = client;
    root.replaceChildren(fromTemplate("timetable-template"));
    this.#week = new WeekPlan(root.querySelector(".week"));
    this.#week.addEventListener("choose", (event) => this.#edit(event.detail));
    this.#list = root.querySelector(".entry-list");
    this.#list.addEventListener("click", (event) => this.#listClicked(event));
    this.#list.addEventListener("keydown", (event) => this.#listKeyPressed(event));
    this.#firingList = root.querySelector(".firing-list");
    this.#form = new EntryForm(root.querySelector(".entry-form"));
    this.#form.addEventListener("save", (event) => this.#save(event.detail));
    this.#form.addEventListener("remove", (event) => this.#remove(event.detail));
    this.#form.addEventListener("cancel", (event) => this.#focusEntry(event.detail));
    root.querySelector("[data-action=undo]").addEventListener("click", () => this.#undo());
    this.#take(firstAnswer, false);
    this.#clockTimer = setInterval(() => this.#showTime(), 1000);
    document.addEventListener("visibilitychange", this.#comeBack);
    this.#askLater();
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#isClosed = true;
    clearTimeout(this.#questionTimer);
    clearInterval(this.#clockTimer);
    document.removeEventListener("visibilitychange", this.#comeBack);
    this.#root.replaceChildren();
  }

  // News

  #askLater() {
    clearTimeout(this.#questionTimer);
    if (!this.#isClosed)
      this.#questionTimer = setTimeout(() => this.#askAgain(), QUESTION_MILLISECONDS);
  }

  async #askAgain() {
    if (!document.hidden)
      await this.#askForNews();
    this.#askLater();
  }

  async #askForNews() {
    clearTimeout(this.#questionTimer);
    try {
      const news = await this.#client.get(`${PATH}?since=${this.#number}`);
      if (!this.#isClosed)
        this.#take(news, true);
    } catch {
      // The client has reported it. Until the next answer the time is not known.
      this.#clock.forget();
      this.#showTime();
    }
  }

  // Of two questions under way at the same time, the older answer may come last.
  #take(news, isLive) {
    if (news.number < this.#number)
      return;
    this.#clock.set(news.time);
    const firings = news.firings.filter((firing) => firing.number > this.#number);
    this.#number = news.number;
    if (news.entries) {
      this.#entries = news.entries;
      this.#showEntries();
    }
    this.#showTime();
    this.#showFirings(firings, isLive);
  }

  // Showing

  #showTime() {
    const time = this.#clock.time;
    const text = time ? timeText(time) : "";
    showField(this.#root, "clock", time ? `${DAYS[dayOf(time) - 1]}, ${text}` : "not known");
    this.#week.showTime(time && placeOf(time), text.slice(0, 5));
  }

  #showEntries() {
    const focused = this.#focusedEntry();
    this.#week.setEntries(this.#entries);
    this.#list.replaceChildren(...this.#entries.map(listItem));
    this.#form.markIn(this.#list);
    showPart(this.#root, "nothing", this.#entries.length === 0);
    if (focused !== null)
      this.#focusEntry(focused);
  }

  #showFirings(firings, isLive) {
    for (const firing of firings) {
      this.#firingList.prepend(firingItem(firing, isLive));
      if (isLive)
        this.#week.flash(firing.entry, placeOf(new Date(millisecondsOf(firing.time))));
    }
    while (this.#firingList.children.length > SHOWN_FIRINGS)
      this.#firingList.lastChild.remove();
    showPart(this.#root, "silence", this.#firingList.children.length === 0);
  }

  #tell(text, removed = null) {
    // The session may have ended over the answer.
    if (this.#isClosed)
      return;
    this.#removed = removed;
    showField(this.#root, "announcement", text);
    this.#root.querySelector("[data-action=undo]").hidden = removed === null;
  }

  // The list

  #entry(id) {
    return this.#entries.find((entry) => entry.id === id) ?? null;
  }

  #focusedEntry() {
    const item = this.#list.contains(document.activeElement) ? document.activeElement.closest("li") : null;
    return item ? Number(item.dataset.id) : null;
  }

  #focusEntry(id) {
    this.#list.querySelector(`li[data-id="${id}"] .entry-open`)?.focus();
  }

  #listClicked(event) {
    const id = Number(event.target.closest("li")?.dataset.id);
    if (event.target.closest(".entry-remove"))
      this.#remove(id);
    else if (event.target.closest(".entry-open"))
      this.#edit(id);
  }

  #listKeyPressed(event) {
    if (event.key !== "Delete" || event.repeat)
      return;
    event.preventDefault();
    this.#remove(this.#focusedEntry());
  }

  // Changes

  #edit(id) {
    const entry = this.#entry(id);
    if (!entry)
      return;
    this.#form.edit(entry);
    this.#form.markIn(this.#list);
  }

  async #save({ id, entry }) {
    await this.#form.during(async () => {
      const saved = id === null
        ? await this.#client.post(PATH, entry) : await this.#client.put(`${PATH}?id=${id}`, entry);
      await this.#askForNews();
      this.#form.reset();
      this.#form.markIn(this.#list);
      this.#tell(id === null ? `“${saved.title}” was added.` : `“${saved.title}” was changed.`);
      this.#focusEntry(saved.id);
    });
    this.#askLater();
  }

  async #remove(id) {
    const entry = this.#entry(id);
    if (!entry)
      return;
    const position = this.#entries.indexOf(entry);
    try {
      await this.#client.remove(`${PATH}?id=${id}`);
    } catch (error) {
      // Somebody else was quicker.
      if (error.status !== 404) {
        this.#tell(error.kind === "refused" ? error.message : "");
        return;
      }
    }
    if (this.#form.editedId === id)
      this.#form.reset();
    await this.#askForNews();
    if (this.#isClosed)
      return;
    this.#askLater();
    this.#tell(`“${entry.title}” was removed.`, entry);
    const next = this.#entries[Math.min(position, this.#entries.length - 1)];
    if (next)
      this.#focusEntry(next.id);
    else
      this.#root.querySelector("[data-action=undo]").focus();
  }

  async #undo() {
    const entry = this.#removed;
    // A second click may be quicker than the answer to the first.
    if (!entry)
      return;
    this.#removed = null;
    try {
      const added = await this.#client.post(PATH, entry);
      await this.#askForNews();
      this.#tell(`“${added.title}” is back.`);
      this.#focusEntry(added.id);
    } catch (error) {
      this.#tell(error.kind === "refused" ? error.message : `“${entry.title}” was removed.`, entry);
    }
    this.#askLater();
  }
}

function listItem(entry) {
  const text = element("span", { class: "entry-text" },
    element("span", { class: "entry-title" }, entry.title),
    element("span", { class: "visually-hidden" }, entry.kind === "event" ? ", event, " : ", time slot, "),
    element("span", { class: "entry-when" }, `${daysText(entry.days)} `,
      element("span", { class: "entry-times" }, timesText(entry))));
  if (entry.active)
    text.append(element("span", { class: "entry-active" }, "Active"));
  const swatch = element("span",
    { class: entry.kind === "event" ? "entry-swatch is-event" : "entry-swatch", "aria-hidden": "true" });
  const open = element("button", { class: "entry-open", type: "button" }, swatch, text);
  return element("li", { class: tintOf(entry.id), "data-id": entry.id }, open, element("button",
    { class: "quiet entry-remove", type: "button", "aria-label": `Remove ${entry.title}`, title: "Remove" }, "×"));
}

function firingItem({ time, entry, title, happening }, isLive) {
  const day = DAYS[dayOf(new Date(millisecondsOf(time))) - 1].slice(0, 3);
  return element("li", { class: isLive ? `firing is-new ${tintOf(entry)}` : `firing ${tintOf(entry)}` },
    element("time", { datetime: time, title: time.replace("T", " ") }, `${day} ${time.slice(11, 16)}`),
    element("span", { class: "firing-text" }, element("strong", {}, title), ` ${HAPPENING_TEXTS[happening]}`));
}
