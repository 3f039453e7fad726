// One input or output: its state, and the controls that change it.

import { fromTemplate, showField, showPart } from "./dom.js";

// The state of what is not valid.
const INVALID_TEXTS = { input: "Cannot be read", output: "Cannot be driven" };

/** The state as the page names it, for the document of an input or output. */
export function stateText({ valid, active }, kind) {
  if (!valid)
    return INVALID_TEXTS[kind];
  return active ? "Active" : "Inactive";
}

export class IoPoint {
  #root;
  #kind;
  #point;
  #isBusy = false;

  /**
   * @param {HTMLElement} list it is appended to this
   * @param {"input"|"output"} kind
   * @param {object} point the device's document of it
   * @param {string[]} wires the names of what it is wired to
   * @param {function(string, object): Promise} send sends a change of what has this name to the device
   */
  constructor(list, kind, point, wires, send) {
    const content = fromTemplate("io-point-template");
    this.#root = content.querySelector(".io-point");
    this.#kind = kind;
    const id = `${kind}-${list.childElementCount + 1}`;
    for (const node of [this.#root, ...content.querySelectorAll("*")]) {
      for (const name of ["id", "name", "aria-labelledby"]) {
        if (node.hasAttribute(name))
          node.setAttribute(name, node.getAttribute(name).replaceAll("POINT", id));
      }
    }
    showField(this.#root, "name", point.name);
    showField(this.#root, "wired-to", wires.join(", "));
    const isWired = wires.length > 0;
    // The level of a contact that is wired to an output follows it.
    const parts = { wire: isWired, output: kind === "output", input: kind === "input", contact: !isWired };
    for (const [part, isWanted] of Object.entries(parts)) {
      if (!isWanted)
        this.#root.querySelector(`[data-part=${part}]`)?.remove();
    }
    this.#root.addEventListener("click", (event) => {
      // Also a key that changes a control is a click. A disabled control would lose the focus.
      if (this.#isBusy && event.target.matches("input"))
        event.preventDefault();
    });
    this.#root.addEventListener("change", (event) => this.#change(changeOf(event.target), send));
    this.show(point);
    list.append(content);
  }

  show(point) {
    this.#point = point;
    const { valid, active, level } = point;
    const shown = valid ? { active, inactive: !active } : { invalid: true };
    for (const part of ["active", "inactive", "invalid"]) {
      const isShown = shown[part] ?? false;
      showPart(this.#root, part, isShown);
      this.#root.querySelector(".io-state").classList.toggle(`is-${part}`, isShown);
    }
    showField(this.#root, "state", stateText(point, this.#kind));
    showField(this.#root, "level", valid ? levelText(level) : "Not known");
    if (!this.#isBusy)
      this.#showControls();
  }

  #showControls() {
    const { valid, active, level, polarity } = this.#point;
    const isChecked = { active, level, broken: !valid };
    for (const control of this.#root.querySelectorAll("input"))
      control.checked = control.type === "radio" ? control.value === polarity : isChecked[control.name];
  }

  async #change(change, send) {
    this.#setBusy(true);
    this.#showRefusal("");
    try {
      await send(this.#point.name, change);
    } catch (error) {
      // The frame of the page shows the others.
      this.#showRefusal(error.kind === "refused" ? error.message : "");
    } finally {
      this.#setBusy(false);
      this.#showControls();
    }
  }

  #setBusy(isBusy) {
    this.#isBusy = isBusy;
    this.#root.setAttribute("aria-busy", String(isBusy));
    for (const control of this.#root.querySelectorAll("input"))
      control.setAttribute("aria-disabled", String(isBusy));
  }

  #showRefusal(text) {
    const message = this.#root.querySelector(".message");
    message.textContent = text;
    message.hidden = text === "";
  }
}

function levelText(level) {
  return level ? "High" : "Low";
}

/** What a control that the user has changed changes on the device. */
function changeOf({ name, value, checked }) {
  if (name === "broken")
    return { valid: !checked };
  return name === "active" || name === "level" ? { [name]: checked } : { polarity: value };
}
