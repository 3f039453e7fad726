// Traceroute from the device: a form, and the routers on the way as rows that grow.

import { copyTextAndShow } from "./clipboard.js";
import { DeviceRun } from "./device-run.js";
import { element, fromTemplate, showField, showPart } from "./dom.js";
import { hostFault } from "./network-rules.js";
import { RunForm } from "./run-form.js";
import { noteMeaning, readTraceroute } from "./traceroute-text.js";

const PROBES = 3;

export const tracerouteView = {
  name: "traceroute",
  title: "Traceroute",

  async open(container, client, { live }) {
    const run = new DeviceRun(client, live, "traceroute");
    return new Traceroute(container, run, await run.state());
  },
};

class Traceroute {
  #root;
  #run;
  #form;
  #names;
  #body;
  #parameters = null; // of the latest run; null without any
  #isRunning = false;
  #text = "";

  constructor(root, run, state) {
    this.#root = root;
    this.#run = run;
    root.replaceChildren(fromTemplate("traceroute-template"));
    const form = root.querySelector("form");
    this.#names = form.elements.names;
    this.#form = new RunForm(form, run, "traceroute", { host: hostFault },
      ({ host, names }) => ({ host: host.value.trim(), printNames: names.checked }));
    this.#body = root.querySelector(".hops tbody");
    root.querySelector("[data-action=copy]").addEventListener("click", (event) => this.#copy(event.target));
    run.addEventListener("event", (event) => this.#takeEvent(event.detail));
    run.addEventListener("answer", (event) => this.#takeAnswer(event.detail));
    this.#show();
    this.#takeAnswer(state);
    run.follow();
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#run.close();
    this.#root.replaceChildren();
  }

  // The run

  // An event has the text from a position on. Where that does not continue what is known, or the text is left out, the
  // whole is read.
  #takeEvent({ started, parameters, position, text }) {
    const isContinued = text !== undefined && position <= this.#text.length;
    if (!isContinued)
      this.#run.read();
    this.#take(started, parameters, isContinued ? this.#text.slice(0, position) + text : this.#text);
  }

  #takeAnswer(state) {
    if (state)
      this.#take(state.started, state.parameters, state.result);
    else if (this.#parameters) // The device deletes a run that another page of this session stops.
      this.#take(false, this.#parameters, this.#text);
  }

  #take(isRunning, parameters, text) {
    const wasRunning = this.#isRunning;
    const isNew = JSON.stringify(parameters) !== JSON.stringify(this.#parameters);
    this.#parameters = parameters;
    this.#isRunning = isRunning;
    this.#text = text;
    this.#run.isActive = isRunning;
    if (isNew) {
      this.#form.set({ host: parameters.host });
      this.#names.checked = parameters.printNames;
    }
    this.#show();
    if (isRunning !== wasRunning)
      this.#announce(`Traceroute to ${parameters.host} ${isRunning ? "started" : "ended"}.`);
  }

  // Showing

  #show() {
    this.#form.showRunning(this.#isRunning);
    showPart(this.#root, "run", this.#parameters !== null);
    showPart(this.#root, "none", this.#parameters === null);
    if (!this.#parameters)
      return;
    const { hops, messages } = readTraceroute(this.#text);
    showField(this.#root, "title", this.#parameters.host);
    showField(this.#root, "parameters", this.#parameters.printNames ? "with the names of the routers" : "addresses only");
    showField(this.#root, "run-state", this.#isRunning ? "Running" : "Ended");
    this.#root.querySelector(".run-state").classList.toggle("is-running", this.#isRunning);
    showField(this.#root, "messages", messages.join("\n"));
    showPart(this.#root, "messages", messages.length > 0);
    showPart(this.#root, "silent", !this.#isRunning && this.#text.trim() === "");
    showPart(this.#root, "hops", hops.length > 0);
    showPart(this.#root, "text", this.#text !== "");
    showField(this.#root, "text", this.#text);
    this.#showHops(hops);
    this.#showNotes(hops);
  }

  // A row that has not changed stays, and with it a selection in it or the position of a screen reader.
  #showHops(hops) {
    hops.forEach((hop, index) => {
      const row = hopRow(hop);
      const shown = this.#body.rows[index];
      if (!shown)
        this.#body.append(row);
      else if (!shown.isEqualNode(row))
        shown.replaceWith(row);
    });
    while (this.#body.rows.length > hops.length)
      this.#body.lastChild.remove();
  }

  #showNotes(hops) {
    const notes = [...new Set(hops.flatMap((hop) => hop.probes.map((probe) => probe.note)))]
      .filter((note) => noteMeaning(note) !== "");
    const items = notes.map((note) => `${note}: ${noteMeaning(note)}`);
    if (hops.some((hop) => hop.probes.some((probe) => probe.time === null)))
      items.unshift("*: no reply");
    showField(this.#root, "notes", items.join(", "));
  }

  #announce(text) {
    showField(this.#root, "announcement", text);
  }

  async #copy(button) {
    const isCopied = await copyTextAndShow(this.#root.querySelector(".raw-text pre"), button);
    this.#announce(isCopied ? "The text was copied." : "The text could not be copied.");
  }
}

function hopRow({ number, routers, probes }) {
  // Further probes than usual stand in the last cell.
  const cells = Array.from({ length: PROBES }, (_, index) => (
    index === PROBES - 1 ? probes.slice(index) : probes.slice(index, index + 1)));
  const isSilent = probes.length > 0 && probes.every((probe) => probe.time === null);
  return element("tr", {},
    element("th", { scope: "row", class: "hop-number" }, String(number)),
    element("td", { class: "hop-host" }, ...(isSilent ? ["no reply"] : routers.map(routerLine))),
    ...cells.map((each) => element("td", { class: "hop-time" }, ...each.map(probeText))));
}

function routerLine({ name, address }) {
  const parts = [[name, "hop-name"], [address, "hop-address"]].filter(([text]) => text !== "");
  return element("div", {}, ...parts.flatMap(([text, kind], index) => [
    ...(index > 0 ? [" "] : []), element("span", { class: kind }, text)]));
}

function probeText({ time, note }) {
  const attributes = noteMeaning(note) === "" ? {} : { title: noteMeaning(note) };
  return element("span", attributes, time === null ? "*" : `${time} ms${note ? ` ${note}` : ""}`);
}
