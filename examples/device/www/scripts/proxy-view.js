// The proxy settings of the device's own requests, and the question which proxy an address has.

import { fromTemplate, showField, showPart } from "./dom.js";
import { ProxyExceptions } from "./proxy-exceptions.js";
import { ProxyQuestion } from "./proxy-question.js";
import { ProxyServer, textsOf } from "./proxy-server.js";

const PATH = "/api/proxy";

const SERVERS = [
  { name: "http", title: "HTTP server", use: "For http:// addresses, and in place of the others." },
  { name: "ssl", title: "SSL server", use: "For https:// addresses." },
  { name: "ftp", title: "FTP server", use: "For ftp:// addresses." },
  { name: "socks5", title: "SOCKS5 server", use: "For all other connections, such as mail." },
];

// What the statuses of the settings mean.
const REFUSALS = {
  400: "The device refuses these settings: one of the servers is not valid.",
  403: "You are not allowed to change the proxy settings.",
  500: "The settings could not be stored. The device keeps the earlier ones.",
};

/**
 * What has not been saved when the view was left, until it is opened again. It may contain passwords, so it ends with
 * the session.
 */
const unsaved = {
  client: null,
  session: 0,
  change: null, // { before, state }: the settings that were changed, and what the form held

  follow(client) {
    if (this.client === client)
      return;
    this.client = client;
    for (const name of ["session-ended", "signed-out"])
      client.addEventListener(name, () => this.forget());
  },

  forget() {
    this.session += 1;
    this.keep(null);
  },

  keep(change) {
    this.change = change;
    window[change ? "addEventListener" : "removeEventListener"]("beforeunload", askBeforeUnload);
  },
};

function askBeforeUnload(event) {
  event.preventDefault();
}

export const proxyView = {
  name: "proxy",
  title: "Proxy",

  async open(container, client) {
    unsaved.follow(client);
    return new ProxySettings(container, client, await client.get(PATH));
  },
};

/** What the form holds for a document of the device. */
function stateOf(settings) {
  return {
    enabled: settings.enabled,
    servers: SERVERS.map(({ name }) => textsOf(settings[name])),
    exceptions: settings.exceptions,
    typed: "",
    proxyDns: settings.proxyDns,
  };
}

function isSame(one, other) {
  return JSON.stringify(one) === JSON.stringify(other);
}

class ProxySettings {
  #root;
  #client;
  #message;
  #enabled;
  #proxyDns;
  #servers;
  #exceptions;
  #question;
  #stored;
  #session = unsaved.session;
  #isSaving = false;

  constructor(root, client, settings) {
    this.#root = root;
    this.#client = client;
    root.replaceChildren(fromTemplate("proxy-template"));
    this.#message = root.querySelector("#proxy-message");
    this.#enabled = root.querySelector("[name=enabled]");
    this.#proxyDns = root.querySelector("[name=proxyDns]");
    const servers = root.querySelector(".proxy-servers");
    this.#servers = SERVERS.map((server) => new ProxyServer(servers, server));
    // Only this server can be asked for names.
    servers.querySelector("form:last-child fieldset").append(root.querySelector(".proxy-dns"));
    this.#exceptions = new ProxyExceptions(root.querySelector(".exceptions"));
    this.#exceptions.addEventListener("change", () => this.#changed());
    this.#question = new ProxyQuestion(root.querySelector(".proxy-question"), client);
    root.querySelector(".proxy-form").addEventListener("input", () => this.#changed());
    servers.addEventListener("keydown", (event) => {
      if (event.key === "Enter" && event.target.matches("input"))
        this.#save();
    });
    root.querySelector("[data-action=save]").addEventListener("click", () => this.#save());
    root.querySelector("[data-action=discard]").addEventListener("click", () => this.#discard());

    this.#stored = settings;
    const { change } = unsaved;
    this.#show(change ? change.state : stateOf(settings));
    if (change)
      this.#tell(isSame(change.before, settings) ? "These changes have not been saved yet."
        : "These changes have not been saved yet. The device’s settings have changed since; saving overwrites them.");
  }

  /** There is nothing in this view that an address names. */
  show() {}

  close() {
    this.#keepUnsaved();
    this.#root.replaceChildren();
  }

  get #state() {
    return {
      enabled: this.#enabled.checked,
      servers: this.#servers.map((server) => server.texts),
      exceptions: this.#exceptions.exceptions,
      typed: this.#exceptions.typed,
      proxyDns: this.#proxyDns.checked,
    };
  }

  get #document() {
    const { enabled, exceptions, proxyDns } = this.#state;
    const servers = SERVERS.map(({ name }, index) => [name, this.#servers[index].document]);
    return { enabled, exceptions, proxyDns, ...Object.fromEntries(servers.filter(([, server]) => server !== null)) };
  }

  get #isChanged() {
    return !isSame(this.#state, stateOf(this.#stored));
  }

  #show(state) {
    this.#enabled.checked = state.enabled;
    this.#proxyDns.checked = state.proxyDns;
    this.#servers.forEach((server, index) => { server.texts = state.servers[index]; });
    this.#exceptions.exceptions = state.exceptions;
    this.#exceptions.typed = state.typed;
    this.#changed();
  }

  #changed() {
    const isChanged = this.#isChanged;
    showPart(this.#root, "unsaved", isChanged);
    this.#tell(isChanged ? "Not saved yet." : "");
    this.#keepUnsaved();
  }

  #keepUnsaved() {
    // The session of this view may have ended.
    if (this.#session === unsaved.session)
      unsaved.keep(this.#isChanged ? { before: this.#stored, state: this.#state } : null);
  }

  #tell(text) {
    showField(this.#root, "proxy-status", text);
  }

  #showRefusal(text) {
    this.#message.textContent = text;
    this.#message.hidden = text === "";
  }

  #discard() {
    this.#showRefusal("");
    this.#show(stateOf(this.#stored));
    this.#tell("The changes were discarded.");
    // The button that had the focus is hidden now.
    this.#root.querySelector("[data-action=save]").focus();
  }

  async #save() {
    if (this.#isSaving)
      return;
    this.#showRefusal("");
    const faulty = [...this.#servers, this.#exceptions].map((part) => part.check()).find((field) => field !== null);
    if (faulty) {
      this.#tell("Not saved: something above is not valid.");
      faulty.focus();
      return;
    }
    this.#isSaving = true;
    this.#tell("Saving …");
    const sent = this.#state;
    try {
      this.#stored = await this.#client.put(PATH, this.#document, REFUSALS);
      // What was typed meanwhile stays, unsaved.
      if (isSame(sent, this.#state))
        this.#show(stateOf(this.#stored));
      this.#changed();
      if (!this.#isChanged)
        this.#tell("Saved.");
      this.#question.refresh();
    } catch (error) {
      this.#changed();
      this.#showRefusal(error.kind === "refused" ? error.message : "");
    } finally {
      this.#isSaving = false;
    }
  }
}
