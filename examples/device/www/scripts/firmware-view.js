// Firmware update: a package is uploaded or taken from a medium, and its installation is followed.

import { element, fromTemplate, showField, showPart } from "./dom.js";
import { FirmwareState } from "./firmware-state.js";
import { FormMessage } from "./form-messages.js";
import { mediaItems } from "./media-list.js";
import { sizeText } from "./sizes.js";

const SUFFIX = ".swu";

const REFUSALS = {
  400: "The device did not accept the package: the upload was not complete, or the file name is not allowed.",
  403: "You do not have the right to update the firmware of this device.",
  404: "The medium is not inserted any more.",
  409: "The device cannot start the installation: another one is in progress, its update daemon does not answer, or the "
    + "file cannot be read.",
  413: "The package is larger than this device accepts.",
  415: "The device does not accept this kind of upload.",
};

export function firmwareView(upload) {
  return {
    name: "firmware",
    title: "Firmware",

    async open(container, client, { live }) {
      const state = new FirmwareState(client, live);
      await state.read();
      return new Firmware(container, client, state, upload);
    },
  };
}

function refusalText(status) {
  return REFUSALS[status] ?? `The device refused the package (status ${status}).`;
}

function percentText(part) {
  return `${Math.floor(100 * part)} %`;
}

/** How much of the installation is done, from 0 to 1; null when that is not known. */
function installedPart({ state, success, stepsCount, currentStep, stepPercentage }) {
  if (state === "finished")
    return success ? 1 : null;
  if (state !== "installing" || stepsCount === 0)
    return null;
  const done = currentStep === 0 ? 0 : currentStep - 1 + stepPercentage / 100;
  return Math.min(1, done / stepsCount);
}

class Firmware {
  #root;
  #client;
  #firmware;
  #upload;
  #form;
  #input;
  #message;
  #title; // of the update, for the focus
  #file = null;
  #packageName = ""; // of the installation that this page has started
  #outcome = ""; // of an upload that did not lead to an installation
  #isBrokenOff = false; // the outcome is that of an upload which the device may nevertheless have received whole
  #lastPart = null; // of the installation, for one that fails
  #announced = "";
  #knownState = "";
  #isExpected = false; // the beginning of the installation that this page has started
  #isStarting = false;
  #isClosed = false;
  #uploadChanged = () => this.#show();
  #uploadEnded = (event) => this.#takeEnd(event.detail);
  #dragged = (event) => this.#drag(event);
  #dropped = (event) => this.#drop(event);

  constructor(root, client, firmware, upload) {
    this.#root = root;
    this.#client = client;
    this.#firmware = firmware;
    this.#upload = upload;
    root.replaceChildren(fromTemplate("firmware-template"));
    this.#form = root.querySelector("form");
    this.#input = this.#form.elements.package;
    this.#title = root.querySelector("#update-heading");
    this.#message = new FormMessage(this.#form, this.#form.querySelector(".message"));
    this.#form.addEventListener("submit", (event) => {
      event.preventDefault();
      this.#startUpload();
    });
    this.#input.addEventListener("change", () => this.#choose([...this.#input.files]));
    root.querySelector("[data-action=cancel]").addEventListener("click", () => upload.cancel());
    for (const name of ["dragover", "dragleave"])
      document.addEventListener(name, this.#dragged);
    document.addEventListener("drop", this.#dropped);
    upload.addEventListener("change", this.#uploadChanged);
    upload.addEventListener("end", this.#uploadEnded);
    if (upload.isActive)
      this.#packageName = upload.name;
    this.#knownState = firmware.state.state;
    firmware.addEventListener("state", () => {
      this.#noteChange();
      this.#show();
    });
    firmware.addEventListener("messages", () => this.#show());
    firmware.addEventListener("media", () => this.#showMedia());
    this.#announced = this.#summary();
    this.#show();
    this.#showMedia();
    firmware.follow();
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#isClosed = true;
    this.#firmware.close();
    this.#upload.removeEventListener("change", this.#uploadChanged);
    this.#upload.removeEventListener("end", this.#uploadEnded);
    for (const name of ["dragover", "dragleave"])
      document.removeEventListener(name, this.#dragged);
    document.removeEventListener("drop", this.#dropped);
    this.#root.replaceChildren();
  }

  // Choosing a package

  // Elsewhere the browser would open the file instead of the page.
  #drag(event) {
    if (!event.dataTransfer.types.includes("Files"))
      return;
    event.preventDefault();
    this.#form.classList.toggle("is-target", event.type === "dragover");
  }

  #drop(event) {
    this.#drag(event);
    const { files } = event.dataTransfer;
    if (files.length === 0 || this.#upload.isActive)
      return;
    if (files.length === 1)
      this.#input.files = files;
    this.#choose([...files]);
  }

  #choose(files) {
    const [file] = files;
    const fault = files.length > 1 ? "Choose one package only." : file ? fileFault(file) : "";
    this.#file = fault === "" ? file ?? null : null;
    this.#message.show(fault, fault === "" ? [] : [this.#input]);
    this.#show();
  }

  // Starting an installation

  async #startUpload() {
    if (!this.#file) {
      this.#message.show("Choose a firmware package first.", [this.#input]);
      this.#input.focus();
      return;
    }
    await this.#start(this.#file.name, async () => {
      // It would be refused after it has been sent.
      await this.#firmware.readState();
      if (this.#firmware.isRunning)
        throw Object.assign(new Error(), { kind: "refused", status: 409 });
      this.#upload.start(this.#client, this.#file);
      this.#root.querySelector("[data-action=cancel]").focus();
    });
  }

  #installFromMedium(media, file) {
    this.#start(file, async () => {
      await this.#firmware.install(media, file);
      this.#title.focus();
    });
  }

  async #start(packageName, action) {
    if (this.#isStarting || this.#isBusy)
      return;
    this.#isStarting = true;
    this.#message.show("");
    this.#outcome = "";
    this.#isBrokenOff = false;
    this.#isExpected = true;
    try {
      await action();
      this.#packageName = packageName;
    } catch (error) {
      this.#isExpected = false;
      // The frame of the page shows the others.
      if (error.kind === "refused")
        this.#showRefusal(error.status);
    } finally {
      this.#isStarting = false;
      if (!this.#isClosed)
        this.#show();
    }
  }

  #showRefusal(status) {
    this.#message.show(status === 409 && this.#firmware.isRunning
      ? "An installation is in progress already. It is shown above." : refusalText(status));
  }

  async #takeEnd({ kind, status }) {
    this.#clearChoice();
    this.#isBrokenOff = kind === "cancelled" || kind === "broken";
    if (kind === "refused" && status !== 401)
      this.#outcome = refusalText(status);
    else if (kind === "cancelled")
      this.#outcome = "The upload was cancelled. The device rejects an incomplete package.";
    else if (kind === "broken")
      this.#outcome = "The upload broke off: the connection was lost, or the file cannot be read any more.";
    this.#show();
    try {
      // It also finds out whether the device can be reached and knows the session.
      await this.#firmware.readState();
    } catch {
      // The client has reported it.
    }
  }

  #clearChoice() {
    this.#file = null;
    this.#form.reset();
  }

  #noteChange() {
    const { state, success } = this.#firmware.state;
    const isBeginning = state === "starting" && this.#knownState !== state;
    const isEnd = state === "finished" && this.#knownState !== state;
    this.#knownState = state;
    // What is known about the package of this page does not hold for that of another one.
    if (isBeginning && !this.#isExpected) {
      this.#packageName = "";
      this.#outcome = "";
    }
    // The rest of the package was on its way already: the system sends what it has taken from the browser.
    if (isEnd && success && this.#isBrokenOff)
      this.#outcome = "";
    // While it is being started, the state may still be that of an earlier installation.
    if (isBeginning || (state === "finished" && !this.#isStarting && !this.#upload.isActive))
      this.#isExpected = false;
  }

  get #isBusy() {
    return this.#upload.isActive || this.#firmware.isRunning;
  }

  // Showing the installation

  #show() {
    const { state } = this.#firmware;
    const part = installedPart(state);
    if (state.state === "starting")
      this.#lastPart = null;
    this.#lastPart = part ?? this.#lastPart;
    const isShown = this.#upload.isActive || state.state !== "idle" || this.#outcome !== "";
    showPart(this.#root, "none", !isShown);
    showPart(this.#root, "update", isShown);
    showField(this.#root, "package-name", this.#packageName || "Installation");
    this.#showBadge();
    this.#showUpload();
    this.#showInstallation(state);
    this.#showResult(state);
    this.#showMessages();
    this.#showForm();
    for (const button of this.#root.querySelectorAll(".medium-packages button"))
      button.disabled = this.#isBusy;
    this.#announce();
  }

  #showBadge() {
    const badge = this.#root.querySelector(".run-state");
    badge.textContent = this.#badgeText();
    badge.classList.toggle("is-running", this.#isBusy);
    badge.classList.toggle("is-bad", !this.#isBusy && badge.textContent !== "Installed");
  }

  #badgeText() {
    const { state, isLost } = this.#firmware;
    if (this.#upload.isActive)
      return "Uploading";
    if (isLost)
      return "Unknown";
    if (this.#firmware.isRunning)
      return "Installing";
    if (this.#outcome !== "")
      return "Not installed";
    return state.success ? "Installed" : "Failed";
  }

  #showUpload() {
    const { isActive, size, sent } = this.#upload;
    const isOwn = this.#upload.name !== "" && this.#packageName === this.#upload.name;
    showPart(this.#root, "upload", isActive || isOwn);
    showPart(this.#root, "cancel", isActive);
    const bar = this.#root.querySelector("#sent-bar");
    bar.max = Math.max(1, size);
    bar.value = sent;
    const part = size === 0 ? 0 : sent / size;
    showField(this.#root, "sent", `${sizeText(sent)} of ${sizeText(size)}, ${percentText(part)}`);
  }

  #showInstallation(state) {
    const bar = this.#root.querySelector("#installed-bar");
    const isWaiting = this.#firmware.isRunning && this.#lastPart === null;
    if (isWaiting)
      bar.removeAttribute("value");
    else
      bar.value = this.#lastPart ?? 0;
    showField(this.#root, "installed", this.#stepText(state));
    const isVersion = (state.information ?? "") !== "";
    showPart(this.#root, "information", isVersion);
    showField(this.#root, "information", state.information ?? "");
  }

  #stepText({ state, success, currentStep, stepsCount, imageName, stepPercentage }) {
    if (state === "finished")
      return success ? "Complete" : this.#lastPart === null ? "Nothing" : `Ended at ${percentText(this.#lastPart)}`;
    if (state === "starting" || (state === "installing" && currentStep === 0))
      return "The device receives the package";
    if (state !== "installing")
      return "Not begun";
    const image = imageName === "" ? "" : `: ${imageName}`;
    return `Step ${currentStep} of ${stepsCount}${image}, ${stepPercentage} %`;
  }

  #showResult({ state, success }) {
    const isEnded = state === "finished" && !this.#isBusy;
    const { isLost, messages } = this.#firmware;
    const isSuccess = isEnded && success && this.#outcome === "";
    showPart(this.#root, "success", isSuccess);
    const faults = [];
    if (this.#outcome !== "")
      faults.push(this.#outcome);
    else if (isLost && !this.#upload.isActive)
      faults.push("The result of the installation is not known: the update daemon of the device does not answer.");
    else if (isEnded && !success)
      faults.push(failureText(messages));
    const fault = this.#root.querySelector("#update-fault");
    const text = faults.join(" ");
    if (fault.textContent !== text)
      fault.textContent = text;
    fault.hidden = text === "";
  }

  // An item that has not changed stays, and with it a selection in it or the position of a screen reader.
  #showMessages() {
    const list = this.#root.querySelector(".update-messages");
    const { messages } = this.#firmware;
    messages.forEach((message, index) => {
      const item = messageItem(message);
      const shown = list.children[index];
      if (!shown)
        list.append(item);
      else if (!shown.isEqualNode(item))
        shown.replaceWith(item);
    });
    while (list.children.length > messages.length)
      list.lastChild.remove();
    list.scrollTop = list.scrollHeight;
    showPart(this.#root, "messages", messages.length > 0);
  }

  #showForm() {
    showField(this.#root, "chosen", this.#file ? `Size: ${sizeText(this.#file.size)}` : "");
    showPart(this.#root, "chosen", this.#file !== null);
    showPart(this.#root, "busy", this.#isBusy);
    this.#form.querySelector("[type=submit]").disabled = this.#isBusy;
    this.#input.disabled = this.#upload.isActive;
  }

  #showMedia() {
    const { media } = this.#firmware;
    const list = this.#root.querySelector(".media-list");
    const focused = list.contains(document.activeElement) ? document.activeElement.dataset.package : null;
    list.replaceChildren(...mediaItems(media, this.#isBusy, (name, file) => this.#installFromMedium(name, file)));
    showPart(this.#root, "no-media", media.length === 0);
    if (focused)
      list.querySelector(`[data-package="${CSS.escape(focused)}"]`)?.focus();
  }

  // For screen readers: the steps, but not each percent.
  #summary() {
    const { state, currentStep, stepsCount, imageName } = this.#firmware.state;
    if (this.#upload.isActive)
      return `${this.#upload.name} is being uploaded.`;
    if (this.#outcome !== "")
      return ""; // an alert
    if (state === "installing" && currentStep > 0)
      return `Step ${currentStep} of ${stepsCount}, ${imageName}.`;
    return { starting: "The installation has started.", finished: this.#firmware.state.success ? "The package has been installed."
      : "" }[state] ?? "";
  }

  #announce() {
    const summary = this.#summary();
    if (summary === this.#announced)
      return;
    this.#announced = summary;
    showField(this.#root, "announcement", summary);
  }
}

function fileFault({ name, size }) {
  if (!name.toLowerCase().endsWith(SUFFIX))
    return `“${name}” is not a firmware package: its name does not end in ${SUFFIX}.`;
  return size === 0 ? `“${name}” is empty.` : "";
}

function failureText(messages) {
  const reasons = messages.filter(({ isError }) => isError).map(({ description }) => description);
  return ["The installation failed.", ...reasons.map((reason) => `The device reports: ${reason}`)].join(" ");
}

function messageItem({ isError, description }) {
  return element("li", isError ? { class: "is-error" } : {},
    ...(isError ? [element("strong", {}, "Error: ")] : []), description);
}
