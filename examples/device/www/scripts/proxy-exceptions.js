// The list of hosts that are reached without a proxy, with what each exception covers beside it.

import { element, showField } from "./dom.js";
import { FieldMessage } from "./form-messages.js";
import { explainException, storageFault } from "./proxy-rules.js";

/** Emits "change" when the list or the text to be added has changed. */
export class ProxyExceptions extends EventTarget {
  #root;
  #list;
  #field;
  #message;
  #exceptions = [];

  constructor(root) {
    super();
    this.#root = root;
    this.#list = root.querySelector(".exception-list");
    this.#field = root.querySelector("#proxy-exception");
    this.#message = new FieldMessage(this.#field, root.querySelector("#proxy-exception-message"));
    this.#field.addEventListener("input", () => {
      this.#showTyped();
      this.#changed();
    });
    this.#field.addEventListener("keydown", (event) => {
      if (event.key !== "Enter")
        return;
      // It would send the form.
      event.preventDefault();
      this.#add();
    });
    root.querySelector("[data-action=add]").addEventListener("click", () => this.#add());
    this.#list.addEventListener("click", (event) => {
      if (event.target.closest("button"))
        this.#remove(Number(event.target.closest("li").dataset.index));
    });
  }

  get exceptions() {
    return this.#exceptions;
  }

  set exceptions(exceptions) {
    this.#exceptions = [...exceptions];
    this.#show();
  }

  /** What has been typed and not added yet. */
  get typed() {
    return this.#field.value;
  }

  set typed(text) {
    this.#field.value = text;
    this.#showTyped();
  }

  /** Reports a text that has not been added. @return its field, or null */
  check() {
    const text = this.typed.trim();
    if (text === "")
      return null;
    this.#message.show(this.#fault(text) || `“${text}” is not in the list yet: add it, or clear the field.`);
    return this.#field;
  }

  #fault(text) {
    return this.#exceptions.includes(text) ? `“${text}” is in the list already.` : storageFault(text);
  }

  #add() {
    const text = this.typed.trim();
    const fault = text === "" ? "Type an exception first." : this.#fault(text);
    this.#message.show(fault);
    this.#field.focus();
    if (fault)
      return;
    this.#exceptions.push(text);
    this.typed = "";
    this.#show();
    this.#tell(`“${text}” was added.`);
    this.#changed();
  }

  #remove(index) {
    const [text] = this.#exceptions.splice(index, 1);
    this.#show();
    const buttons = this.#list.querySelectorAll("button");
    (buttons[Math.min(index, buttons.length - 1)] ?? this.#field).focus();
    this.#tell(`“${text}” was removed.`);
    this.#changed();
  }

  #show() {
    this.#list.replaceChildren(...this.#exceptions.map(listItem));
    this.#root.querySelector("[data-part=no-exceptions]").hidden = this.#exceptions.length > 0;
  }

  #showTyped() {
    const text = this.typed.trim();
    this.#message.show(this.#fault(text));
    this.#root.querySelector("#proxy-exception-explanation").replaceChildren(...(text === "" ? [] : explanation(text)));
    this.#tell("");
  }

  #tell(text) {
    showField(this.#root, "exception-announcement", text);
  }

  #changed() {
    this.dispatchEvent(new Event("change"));
  }
}

function explanation(text) {
  const { isVoid, covers, not } = explainException(text);
  return [element("span", { class: isVoid ? "covers is-void" : "covers" }, covers), " ",
    element("span", { class: "covers-not" }, not)];
}

function listItem(text, index) {
  const id = `proxy-exception-${index}`;
  return element("li", { "data-index": index },
    element("code", {}, text),
    element("p", { class: "exception-explanation", id }, ...explanation(text)),
    element("button", { class: "quiet entry-remove", type: "button", "aria-label": `Remove ${text}`,
      "aria-describedby": id, title: "Remove" }, "×"));
}
