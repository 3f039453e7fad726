// The device itself: its names and versions, its time, its memory, and the latest lines of its system log.

import { DAYS, DeviceClock, dayOf, timeText } from "./device-clock.js";
import { element, fromTemplate, showField, showPart } from "./dom.js";
import { sizeText } from "./sizes.js";

const PATH = "/api/device";
const QUESTION_MILLISECONDS = 5000;

const MONTHS = ["January", "February", "March", "April", "May", "June", "July", "August", "September", "October",
  "November", "December"];

const LEVEL_NAMES = { emerg: "Emergency", alert: "Alert", crit: "Critical", err: "Error", warn: "Warning",
  notice: "Notice", info: "Information", debug: "Debug" };

export const deviceView = {
  name: "device",
  title: "Device",

  async open(container, client) {
    return new Device(container, client, await client.get(PATH));
  },
};

function dateText(date) {
  return `${DAYS[dayOf(date) - 1]}, ${date.getUTCDate()} ${MONTHS[date.getUTCMonth()]} ${date.getUTCFullYear()}`;
}

/** The offset from UTC, in seconds, as "UTC+01:00". */
function offsetText(seconds) {
  const minutes = Math.round(Math.abs(seconds) / 60);
  const digits = (number) => String(number).padStart(2, "0");
  return `UTC${seconds < 0 ? "−" : "+"}${digits(Math.floor(minutes / 60))}:${digits(minutes % 60)}`;
}

function countText(count, unit) {
  return `${count} ${unit}${count === 1 ? "" : "s"}`;
}

/** The two largest units of a time in seconds, such as "3 days, 4 hours". */
function durationText(seconds) {
  const counts = [[Math.floor(seconds / 86400), "day"], [Math.floor(seconds / 3600) % 24, "hour"],
    [Math.floor(seconds / 60) % 60, "minute"]];
  const first = counts.findIndex(([count]) => count > 0);
  if (first < 0)
    return "less than a minute";
  return counts.slice(first, first + 2).filter(([count]) => count > 0).map((each) => countText(...each)).join(", ");
}

class Device {
  #root;
  #client;
  #clock = new DeviceClock();
  #level;
  #program;
  #questions = 0;
  #isNewChoice = false; // its lines have not been shown yet
  #questionTimer = null;
  #clockTimer = null;
  #isClosed = false;
  #comeBack = () => this.#askAgain();

  constructor(root, client, state) {
    this.#root = root;
    this.#client = client;
    root.replaceChildren(fromTemplate("device-template"));
    this.#level = root.querySelector("#log-level");
    this.#program = root.querySelector("#log-program");
    for (const choice of [this.#level, this.#program])
      choice.addEventListener("change", () => this.#chosen());
    this.#show(state);
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

  #askLater() {
    clearTimeout(this.#questionTimer);
    if (!this.#isClosed)
      this.#questionTimer = setTimeout(() => this.#askAgain(), QUESTION_MILLISECONDS);
  }

  async #askAgain() {
    if (!document.hidden)
      await this.#ask(true);
    this.#askLater();
  }

  async #chosen() {
    this.#isNewChoice = true;
    await this.#ask(false);
    this.#askLater();
  }

  // When its lines are shown, which a question of the page itself may have asked for.
  #announceChoice(count) {
    if (this.#isNewChoice)
      showField(this.#root, "log-announcement", count === 0 ? "No messages" : countText(count, "message"));
    this.#isNewChoice = false;
  }

  // Of two questions under way at the same time only the answer to the later one is shown.
  async #ask(isPassive) {
    this.#questions += 1;
    const question = this.#questions;
    const parameters = new URLSearchParams({ level: this.#level.value, program: this.#program.value });
    if (isPassive)
      parameters.set("passive", "yes");
    try {
      const state = await this.#client.get(`${PATH}?${parameters}`);
      if (!this.#isClosed && question === this.#questions) {
        this.#show(state);
        this.#announceChoice(state.log.lines.length);
      }
    } catch {
      // The client has reported it. Until the next answer the time is not known.
      this.#clock.forget();
      this.#showTime();
    }
  }

  #show(state) {
    const root = this.#root;
    const { library, timeZone, memory, uptime } = state;
    this.#clock.set(state.time);
    this.#showTime();
    showField(root, "host-name", state.hostName);
    showField(root, "library", `${library.name} ${library.version}`);
    showField(root, "zone-name", timeZone ? timeZone.name || "without a name" : "Not set");
    showField(root, "zone-code", timeZone?.code ?? "");
    showField(root, "zone-action", timeZone ? "Change" : "Choose one");
    showPart(root, "zone-code", timeZone !== null);
    showField(root, "offset", offsetText(state.utcOffset));
    showField(root, "uptime", uptime === null ? "not known" : durationText(uptime));
    this.#showMemory(memory);
    this.#showPrograms(state.log.programs);
    this.#showLines(state.log.lines);
  }

  #showTime() {
    const time = this.#clock.time;
    showField(this.#root, "date", time ? dateText(time) : "");
    showField(this.#root, "clock", time ? timeText(time) : "not known");
  }

  #showMemory({ total, available }) {
    const isKnown = total !== null && available !== null;
    showField(this.#root, "memory", isKnown ? `${sizeText(available)} of ${sizeText(total)} available` : "not known");
    const meter = this.#root.querySelector("meter");
    meter.hidden = !isKnown;
    meter.max = total ?? 1;
    meter.value = isKnown ? total - available : 0;
  }

  // A program that was chosen stays in the list, also when the log has no line of it any more.
  #showPrograms(programs) {
    const names = [...new Set([...programs, this.#program.value])].filter((name) => name !== "").sort();
    const shown = Array.from(this.#program.options, (option) => option.value).slice(1);
    if (names.join("\n") === shown.join("\n"))
      return;
    const chosen = this.#program.value;
    this.#program.replaceChildren(this.#program.options[0],
      ...names.map((name) => element("option", { value: name }, name)));
    this.#program.value = chosen;
  }

  #showLines(lines) {
    showPart(this.#root, "no-lines", lines.length === 0);
    this.#root.querySelector(".log-lines").hidden = lines.length === 0;
    this.#root.querySelector(".log-lines tbody").replaceChildren(...lines.map(lineRow));
  }
}

function lineRow({ time, level, program, text }) {
  return element("tr", { class: `log-${level}` },
    element("td", { class: "log-time" }, time),
    element("td", { class: "log-level" }, element("span", {}, LEVEL_NAMES[level] ?? level)),
    element("td", { class: "log-program" }, program),
    element("td", { class: "log-text" }, text));
}
