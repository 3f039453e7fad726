// The fields of one proxy server.

import { fromTemplate, showField, showPart } from "./dom.js";
import { FieldMessage } from "./form-messages.js";
import { hostFault, portFault, storageFault } from "./proxy-rules.js";

const NAMES = ["host", "port", "username", "password"];

/** What the fields hold for a server of the device's document, or for none. */
export function textsOf(server) {
  return { host: server?.host ?? "", port: String(server?.port ?? ""), username: server?.username ?? "",
    password: server?.password ?? "" };
}

export class ProxyServer {
  #root;
  #server;
  #fields;
  #messages;
  #isTouched = false;

  /**
   * @param {HTMLElement} root the fields are appended to it
   * @param {{name: string, title: string, use: string}} server what the device calls it, what the page does, and what
   * it is for; the one named "http" must be there
   */
  constructor(root, server) {
    const content = fromTemplate("proxy-server-template");
    this.#root = content.querySelector(".proxy-server");
    this.#server = server;
    for (const node of content.querySelectorAll("[id], [for], [aria-describedby]")) {
      for (const attribute of ["id", "for", "aria-describedby"]) {
        if (node.hasAttribute(attribute))
          node.setAttribute(attribute, node.getAttribute(attribute).replaceAll("SERVER", server.name));
      }
    }
    this.#fields = Object.fromEntries(NAMES.map((name) => [name, this.#root.querySelector(`[name=${name}]`)]));
    this.#messages = Object.fromEntries(NAMES.map((name) => [name, new FieldMessage(
      this.#fields[name], this.#root.querySelector(`#proxy-${server.name}-${name}-message`))]));
    showField(this.#root, "title", server.title);
    showField(this.#root, "use", server.use);
    const reveal = this.#root.querySelector("[data-action=reveal]");
    reveal.setAttribute("aria-label", `Show the password for the ${server.title}`);
    reveal.addEventListener("click", () => this.#reveal(reveal.getAttribute("aria-pressed") !== "true"));
    this.#root.addEventListener("input", () => {
      this.#isTouched = true;
      this.#show();
    });
    root.append(content);
  }

  get texts() {
    return Object.fromEntries(NAMES.map((name) => [name, this.#fields[name].value]));
  }

  /** Shows other texts; what is missing in them is reported only after a change, or by check(). */
  set texts(texts) {
    for (const name of NAMES)
      this.#fields[name].value = texts[name];
    this.#isTouched = false;
    this.#reveal(false);
    this.#show();
  }

  /** The server for the device's document, or null for none. */
  get document() {
    const { host, port, username, password } = this.texts;
    if (this.#isEmpty())
      return null;
    return { host: host.trim(), port: Number(port), ...(username && { username }), ...(password && { password }) };
  }

  /** Reports everything that is wrong. @return the first field with a fault, or null */
  check() {
    this.#isTouched = true;
    this.#show();
    const faults = this.#faults();
    const name = NAMES.find((each) => faults[each] !== "");
    if (name === undefined)
      return null;
    this.#fields[name].closest("details")?.setAttribute("open", "");
    return this.#fields[name];
  }

  #isEmpty() {
    return this.#server.name !== "http" && Object.values(this.texts).every((text) => text.trim() === "");
  }

  #faults() {
    const { host, port, username, password } = this.texts;
    const faults = { host: "", port: "", username: storageFault(username), password: storageFault(password) };
    if (this.#isEmpty())
      return faults;
    if (host.trim() !== "")
      faults.host = hostFault(host.trim());
    else if (this.#server.name === "http")
      faults.host = "There must be an HTTP server: give its host.";
    else
      faults.host = "Give the host, or clear the other fields to use the HTTP server.";
    faults.port = port.trim() === "" ? "Give the port." : portFault(port.trim());
    return faults;
  }

  #show() {
    const faults = this.#isTouched ? this.#faults() : {};
    for (const name of NAMES)
      this.#messages[name].show(faults[name] ?? "");
    const { host, username, password } = this.texts;
    showPart(this.#root, "unset", host.trim() === "0.0.0.0");
    showPart(this.#root, "http-instead", this.#isEmpty());
    showField(this.#root, "credentials",
      username === "" && password === "" ? "none" : username || "password only");
  }

  #reveal(isShown) {
    this.#fields.password.type = isShown ? "text" : "password";
    this.#root.querySelector("[data-action=reveal]").setAttribute("aria-pressed", String(isShown));
  }
}
