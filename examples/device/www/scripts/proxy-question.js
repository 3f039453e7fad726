// "Which proxy for this address?", answered by the device, which decides for its own requests in the same way.

import { element } from "./dom.js";
import { FormMessage } from "./form-messages.js";

const PATH = "/api/proxy-choice";
const SERVER_NAMES = { http: "HTTP", https: "SSL", ftp: "FTP" };

export class ProxyQuestion {
  #form;
  #client;
  #message;
  #answer;
  #questions = 0;

  constructor(form, client) {
    this.#form = form;
    this.#client = client;
    this.#message = new FormMessage(form, form.querySelector(".message"));
    this.#answer = form.querySelector(".proxy-answer");
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      this.#ask();
    });
    form.addEventListener("input", () => this.#show([]));
  }

  /** The settings have changed: what has been answered is answered again. */
  refresh() {
    if (this.#answer.childNodes.length > 0)
      this.#ask();
  }

  async #ask() {
    const field = this.#form.elements.address;
    this.#questions += 1;
    const question = this.#questions;
    try {
      const choice = await this.#client.get(`${PATH}?${new URLSearchParams({ address: field.value })}`);
      if (question === this.#questions)
        this.#show(sentence(choice));
    } catch (error) {
      if (question !== this.#questions)
        return;
      this.#show([]);
      this.#message.show(error.kind === "unreachable" ? "" : error.message, [field]);
      field.focus();
    }
  }

  // A later change of the address makes the answer to an earlier question void.
  #show(answer) {
    this.#questions += answer.length === 0 ? 1 : 0;
    this.#message.show("");
    this.#answer.replaceChildren(...answer);
  }
}

/** The answer in words: the way in bold, then the rule. */
function sentence({ host, protocol, proxy, reason, exception }) {
  if (proxy === null)
    return [element("strong", {}, "Direct"), `, because ${directReason(host, reason, exception)}.`];
  const name = SERVER_NAMES[protocol] ?? "SOCKS5";
  const way = element("strong", {}, `Through ${proxy.host}:${proxy.port}`);
  if (reason === "own server")
    return [way, `, because this is the ${name} server.`];
  const language = proxy.type === "socks5" ? " It is used as a SOCKS5 server." : "";
  return [way, `, the HTTP server, because no ${name} server is set.${language}`];
}

function directReason(host, reason, exception) {
  if (reason === "exception")
    return `the exception ${exception} covers ${host}`;
  return reason === "disabled" ? "proxy servers are switched off" : "no server is set";
}
