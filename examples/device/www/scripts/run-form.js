// The form of ping and traceroute, which starts and stops the run.

import { CheckedFields } from "./checked-fields.js";
import { FormMessage } from "./form-messages.js";

export class RunForm {
  #form;
  #run;
  #test;
  #parameters;
  #fields;
  #message;
  #isBusy = false;
  #isRunning = false;

  /**
   * @param {HTMLFormElement} form
   * @param {DeviceRun} run
   * @param {string} test what messages call it
   * @param rules see CheckedFields
   * @param {function(HTMLFormControlsCollection): object} parameters what is sent to the device
   */
  constructor(form, run, test, rules, parameters) {
    this.#form = form;
    this.#run = run;
    this.#test = test;
    this.#parameters = parameters;
    this.#fields = new CheckedFields(form, rules);
    this.#message = new FormMessage(form, form.querySelector(".message"));
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      this.#start();
    });
    form.querySelector("[data-action=stop]").addEventListener("click", () => this.#during(() => run.stop()));
    run.addEventListener("refused", (event) => this.#message.show(faultText(event.detail, test)));
  }

  /** Shows the values of a run. */
  set(values) {
    this.#fields.set(values);
  }

  /** Offers to start a run, or to stop it. */
  showRunning(isRunning) {
    this.#isRunning = isRunning;
    const start = this.#form.querySelector("[type=submit]");
    const stop = this.#form.querySelector("[data-action=stop]");
    const [wanted, other] = isRunning ? [stop, start] : [start, stop];
    const hasFocus = document.activeElement === other;
    wanted.hidden = false;
    other.hidden = true;
    if (hasFocus)
      wanted.focus();
    for (const field of this.#form.querySelectorAll("input")) {
      if (field.type === "checkbox")
        field.disabled = isRunning;
      else
        field.readOnly = isRunning;
    }
  }

  #start() {
    if (!this.#isRunning && this.#fields.check())
      this.#during(() => this.#run.start(this.#parameters(this.#form.elements)));
  }

  async #during(action) {
    if (this.#isBusy)
      return;
    this.#isBusy = true;
    this.#message.show("");
    try {
      await action();
    } catch (error) {
      this.#message.show(faultText(error, this.#test));
      if (error.status === 409)
        this.#run.read();
    } finally {
      this.#isBusy = false;
    }
  }
}

function faultText(error, test) {
  // The frame of the page shows the others.
  if (error.kind !== "refused")
    return "";
  switch (error.status) {
  case 400:
    return "The device does not accept these values.";
  case 403:
    return `You do not have the right to run a ${test} from this device.`;
  case 409:
    return `A ${test} was running already, started by another page of this session. It is shown below.`;
  case 503:
    return `Other users run so many tests that the device has no room for a further ${test}. Try again later.`;
  default:
    return error.message;
  }
}
