// The week as a picture: a row for each day, 24 hours wide, with a bar for each slot, a mark for each event and a line
// for the current minute.

import { DAYS } from "./device-clock.js";
import { element } from "./dom.js";

const MINUTES_OF_DAY = 24 * 60;
const HOUR_STEP = 3;

// How many minutes of its row a mark takes with its title, at most.
const MARK_MINUTES = 150;

// Bars of fewer minutes have no room for a title, the first not even on a wide page.
const VERY_SHORT_MINUTES = 45;
const SHORT_MINUTES = 150;

const TINTS = 6;

/** The minute of the day that a text like "06:30" means. */
export function minuteOf(text) {
  const [hour, minute] = text.split(":").map(Number);
  return hour * 60 + minute;
}

/** The class that gives everything that belongs to an entry the same colour. */
export function tintOf(id) {
  return `tint-${id % TINTS}`;
}

function percent(minute) {
  return `${(minute / MINUTES_OF_DAY) * 100}%`;
}

function place(node, from, to) {
  node.style.left = percent(from);
  node.style.width = percent(to - from);
}

/** What an entry is in the rows of the week. A slot over midnight has a part in the next row too. */
function partsOf(entry) {
  const parts = [];
  for (const day of entry.days) {
    if (entry.kind === "event") {
      parts.push({ entry, day, from: minuteOf(entry.time) });
      continue;
    }
    const from = minuteOf(entry.start);
    const to = minuteOf(entry.end);
    if (from < to) {
      parts.push({ entry, day, from, to });
      continue;
    }
    parts.push({ entry, day, from, to: MINUTES_OF_DAY, goesOn: to > 0 });
    if (to > 0)
      parts.push({ entry, day: (day % 7) + 1, from: 0, to, hasGoneOn: true });
  }
  return parts;
}

/** Whether a part is at this time of the week, its end included. */
function isAt({ day, from, to = from }, time) {
  const minute = day === time.day ? time.minute : time.minute + MINUTES_OF_DAY;
  const isRow = day === time.day || (day % 7) + 1 === time.day;
  return isRow && from <= minute && minute <= to;
}

/** The room that a part takes: a mark stands beside its title, which is on the left at the end of the day. */
function roomOf({ from, to }) {
  if (to !== undefined)
    return { from, to };
  return from + MARK_MINUTES <= MINUTES_OF_DAY
    ? { from, to: from + MARK_MINUTES } : { from: from - MARK_MINUTES, to: from };
}

/** Puts parts that would cover each other into lanes below each other; the result is the number of lanes. */
function arrange(parts) {
  const ends = [];
  parts.sort((one, other) => one.room.from - other.room.from || one.entry.id - other.entry.id);
  for (const part of parts) {
    const free = ends.findIndex((end) => end <= part.room.from);
    part.lane = free < 0 ? ends.length : free;
    ends[part.lane] = part.room.to;
  }
  return Math.max(1, ends.length);
}

/** Emits "choose" (the id of an entry as detail) when a bar or a mark is clicked. */
export class WeekPlan extends EventTarget {
  #rows;
  #parts = [];
  #time = null;
  #line = element("div", { class: "week-now" });
  #lineLabel = element("span", { class: "week-now-label" });

  /** @param {HTMLElement} root an empty element */
  constructor(root) {
    super();
    const hours = element("div", { class: "week-hours" });
    for (let hour = 0; hour <= 24; hour += HOUR_STEP) {
      const label = element("span", { class: "week-hour" }, String(hour).padStart(2, "0"));
      label.style.left = percent(hour * 60);
      hours.append(label);
    }
    hours.append(this.#lineLabel);
    this.#rows = DAYS.map(() => element("div", { class: "week-track" }));
    const rows = this.#rows.map((track, index) => element("div", { class: "week-row" },
      element("span", { class: "week-day" }, DAYS[index]), track));
    root.replaceChildren(element("div", { class: "week-row week-axis" }, element("span", { class: "week-day" }), hours),
      ...rows);
    root.addEventListener("click", (event) => this.#clicked(event));
    this.showTime(null);
  }

  setEntries(entries) {
    this.#parts = entries.flatMap(partsOf).map((part) => ({ ...part, room: roomOf(part) }));
    this.#rows.forEach((track, index) => {
      const parts = this.#parts.filter((part) => part.day === index + 1);
      track.style.setProperty("--lanes", arrange(parts));
      for (const part of parts)
        part.node = part.to === undefined ? markOf(part) : barOf(part);
      track.replaceChildren(...parts.map((part) => part.node));
    });
    this.#showLine();
  }

  /**
   * @param {?{day: number, minute: number}} time where the line is, or null for no line
   * @param {string} text what the line is labelled with
   */
  showTime(time, text = "") {
    this.#time = time;
    this.#lineLabel.textContent = text;
    this.#showLine();
  }

  /** Makes what the entry has at this time flash. */
  flash(id, time) {
    for (const part of this.#parts.filter((candidate) => candidate.entry.id === id && isAt(candidate, time))) {
      // Taken away and read back, so that the animation begins anew.
      part.node.classList.remove("flash");
      void part.node.offsetWidth;
      part.node.classList.add("flash");
    }
  }

  #showLine() {
    const time = this.#time;
    this.#line.hidden = time === null;
    this.#lineLabel.hidden = time === null;
    this.#rows.forEach((track, index) => {
      track.parentElement.classList.toggle("week-today", time?.day === index + 1);
    });
    for (const { entry, day, from, to, node } of this.#parts) {
      const isNow = Boolean(entry.active) && time?.day === day && from <= time.minute && time.minute < to;
      node.classList.toggle("is-active", isNow);
    }
    if (time === null)
      return;
    this.#line.style.left = percent(time.minute);
    this.#lineLabel.style.left = percent(time.minute);
    const track = this.#rows[time.day - 1];
    if (this.#line.parentElement !== track)
      track.append(this.#line);
  }

  #clicked(event) {
    const node = event.target.closest("[data-id]");
    if (node)
      this.dispatchEvent(new CustomEvent("choose", { detail: Number(node.dataset.id) }));
  }
}

function barOf({ entry, from, to, lane, goesOn = false, hasGoneOn = false }) {
  const bar = element("div", {
    class: `week-bar ${tintOf(entry.id)}`, "data-id": entry.id, title: `${entry.title}, ${entry.start}–${entry.end}`,
  }, element("span", { class: "week-label" }, entry.title));
  bar.classList.toggle("goes-on", goesOn);
  bar.classList.toggle("has-gone-on", hasGoneOn);
  bar.classList.toggle("is-short", to - from < SHORT_MINUTES);
  bar.classList.toggle("is-very-short", to - from < VERY_SHORT_MINUTES);
  place(bar, from, to);
  bar.style.setProperty("--lane", lane);
  return bar;
}

function markOf({ entry, from, lane, room }) {
  const mark = element("div", {
    class: `week-mark ${tintOf(entry.id)}${room.from < from ? " at-end" : ""}`,
    "data-id": entry.id, title: `${entry.title}, ${entry.time}`,
  }, element("span", { class: "week-diamond" }), element("span", { class: "week-label" }, entry.title));
  place(mark, room.from, room.to);
  mark.style.setProperty("--lane", lane);
  return mark;
}
