// Ping from the device: a form, and the reply times as they come.

import { copyTextAndShow } from "./clipboard.js";
import { DeviceRun } from "./device-run.js";
import { element, fromTemplate, showField, showPart } from "./dom.js";
import { hostFault, numberFault } from "./network-rules.js";
import { PingChart } from "./ping-chart.js";
import { PingHistory } from "./ping-history.js";
import { lossText, timeText } from "./reply-times.js";
import { RunForm } from "./run-form.js";

const RULES = {
  host: hostFault,
  count: (text) => numberFault(text, 0),
  delay: (text) => numberFault(text, 1),
  timeout: (text) => numberFault(text, 1),
};

const TOLERANCE_MILLISECONDS = 500;

const KIND_TEXTS = { untimed: "no time", lost: "lost", unseen: "not seen by this page" };

export const pingView = {
  name: "ping",
  title: "Ping",

  async open(container, client, { live }) {
    const run = new DeviceRun(client, live, "ping");
    return new Ping(container, run, await run.state());
  },
};

function pointText(point) {
  return KIND_TEXTS[point.kind] ?? timeText(point.time);
}

function optionalTime(time) {
  return time === null ? "no time" : timeText(time);
}

function countText(count, unit) {
  return `${count} ${unit}${count === 1 ? "" : "s"}`;
}

class Ping {
  #root;
  #run;
  #form;
  #chart;
  #history = new PingHistory();
  #lastResult = 0; // when it came
  #endedEarly = false; // a ping without an answer, before its timeout

  constructor(root, run, state) {
    this.#root = root;
    this.#run = run;
    root.replaceChildren(fromTemplate("ping-template"));
    this.#form = new RunForm(root.querySelector("form"), run, "ping", RULES, ({ host, count, delay, timeout }) => ({
      host: host.value.trim(), count: Number(count.value), delay: Number(delay.value), timeout: Number(timeout.value) }));
    this.#chart = new PingChart(root.querySelector(".chart"));
    root.querySelector("[data-action=copy]").addEventListener("click", (event) => this.#copy(event.target));
    root.querySelector(".point-list").addEventListener("toggle", () => this.#showList());
    run.addEventListener("event", (event) => this.#take(event.detail, true));
    run.addEventListener("answer", (event) => this.#take(event.detail, false));
    this.#show();
    this.#take(state, false);
    run.follow();
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#run.close();
    this.#chart.close();
    this.#root.replaceChildren();
  }

  // The run

  #take(state, isEvent) {
    const wasRunning = this.#isRunning;
    const sent = this.#history.state?.statistics.sent ?? 0;
    // The device deletes a run that another page of this session stops.
    const current = state ?? (this.#history.state && { ...this.#history.state, started: false });
    if (!current)
      return;
    const isNew = this.#history.take(current, isEvent);
    if (isNew)
      this.#form.set(current.parameters);
    this.#noteEarlyEnd(isNew, current, sent);
    this.#run.isActive = this.#isRunning;
    this.#show();
    if (this.#isRunning !== wasRunning)
      this.#announce(this.#isRunning ? `Ping of ${current.parameters.host} started.` : `Ping ended: ${this.#countsText()}.`);
  }

  // A ping that is lost takes its whole timeout. One that ends earlier has failed for another reason. Events that come in
  // quick succession have been held up by the connection.
  #noteEarlyEnd(isNew, { statistics, parameters, last }, known) {
    if (!isNew && statistics.sent === known)
      return;
    const now = performance.now();
    const elapsed = now - this.#lastResult;
    const shortest = known === 0 ? 0 : 1000 * parameters.delay - TOLERANCE_MILLISECONDS;
    const isEarly = statistics.sent === known + 1 && !last.good && elapsed >= shortest
      && elapsed < 1000 * parameters.timeout - TOLERANCE_MILLISECONDS;
    this.#endedEarly = !isNew && (this.#endedEarly || isEarly);
    this.#lastResult = now;
  }

  get #isRunning() {
    return this.#history.state?.started ?? false;
  }

  // Showing

  #show() {
    const { state } = this.#history;
    this.#form.showRunning(this.#isRunning);
    showPart(this.#root, "run", state !== null);
    showPart(this.#root, "none", state === null);
    if (!state)
      return;
    const { host, count, delay, timeout } = state.parameters;
    showField(this.#root, "title", host);
    showField(this.#root, "parameters", [count === 0 ? "until stopped" : countText(count, "ping"),
      `one every ${delay === 1 ? "second" : `${delay} seconds`}`, `${countText(timeout, "second")} for a reply`].join(", "));
    showField(this.#root, "run-state", this.#runStateText());
    this.#root.querySelector(".run-state").classList.toggle("is-running", state.started);
    this.#showFigures(state);
    this.#showHints(state);
    this.#chart.show(this.#history.points, this.#chartText());
    this.#showList();
  }

  #runStateText() {
    const { started, parameters: { count }, statistics: { sent } } = this.#history.state;
    if (started)
      return "Running";
    return count !== 0 && sent >= count ? "Finished" : "Stopped";
  }

  #showFigures({ statistics: { sent, good } }) {
    const { fastest, mean, slowest } = this.#history.times;
    const { jitter } = this.#history;
    const figures = { sent, received: good, loss: sent === 0 ? "–" : lossText(sent, good), last: this.#lastText(),
      fastest: good === 0 ? "–" : optionalTime(fastest), mean: good === 0 ? "–" : optionalTime(mean),
      slowest: good === 0 ? "–" : optionalTime(slowest), jitter: jitter === null ? "–" : timeText(jitter) };
    for (const [name, text] of Object.entries(figures))
      showField(this.#root, name, text);
    this.#root.querySelector("[data-field=loss]").classList.toggle("is-bad", good < sent);
  }

  #lastText() {
    const { last } = this.#history.state;
    const point = this.#history.points.at(-1);
    if (!last)
      return "–";
    if (point)
      return point.kind === "time" ? `${timeText(point.time)}, TTL ${last.ttl}` : pointText(point);
    // The page came later: the time may be that of an earlier reply.
    return last.good ? "answered" : "lost";
  }

  #showHints({ statistics: { sent, good } }) {
    const { firstNumber, untimedCount, isComplete, points } = this.#history;
    showPart(this.#root, "failing", good === 0 && this.#endedEarly);
    showPart(this.#root, "untimed", untimedCount > 0);
    showPart(this.#root, "incomplete", sent > 0 && !isComplete);
    showField(this.#root, "first", firstNumber === 0 ? "the next ping" : `ping ${firstNumber}`);
    for (const kind of ["time", "lost", "untimed"])
      showPart(this.#root, `legend-${kind}`, points.some((point) => point.kind === kind));
  }

  #chartText() {
    const { points } = this.#history;
    const times = points.filter((point) => point.kind === "time").map((point) => point.time);
    const count = (kind) => points.filter((point) => point.kind === kind).length;
    if (points.length === 0)
      return "Reply times: none yet.";
    const range = times.length === 0 ? "no reply time"
      : `reply times from ${timeText(Math.min(...times))} to ${timeText(Math.max(...times))}`;
    return `Pings ${points[0].number} to ${points.at(-1).number}: ${range}, ${count("lost")} lost, `
      + `${count("untimed")} without a time.`;
  }

  #showList() {
    const details = this.#root.querySelector(".point-list");
    const { points } = this.#history;
    showPart(this.#root, "points", points.length > 0);
    if (!details.open)
      return;
    details.querySelector("tbody").replaceChildren(...[...points].reverse().map((point) => element("tr", {},
      element("th", { scope: "row" }, String(point.number)), element("td", { class: `is-${point.kind}` }, pointText(point)))));
  }

  #countsText() {
    const { sent, good } = this.#history.state.statistics;
    return `${sent} sent, ${good} received, ${lossText(sent, good)} lost`;
  }

  #announce(text) {
    showField(this.#root, "announcement", text);
  }

  // The result as text

  #report() {
    const { fastest, mean, slowest } = this.#history.times;
    const { jitter, points, state } = this.#history;
    const lines = [`Ping of ${state.parameters.host}`, this.#countsText()];
    if (state.statistics.good > 0) {
      lines.push(`fastest ${optionalTime(fastest)}, mean ${optionalTime(mean)}, slowest ${optionalTime(slowest)}, `
        + `jitter ${jitter === null ? "not known" : timeText(jitter)}`);
    }
    return [...lines, "", ...points.map((point) => `${point.number}\t${pointText(point)}`)].join("\n");
  }

  async #copy(button) {
    const report = this.#root.querySelector(".report");
    report.textContent = this.#report();
    const isCopied = await copyTextAndShow(report, button);
    this.#announce(isCopied ? "The result was copied." : "The result could not be copied.");
  }
}
