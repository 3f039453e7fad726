// Requests to the device. Every view goes through one DeviceClient, so that what all of them have in common is decided
// here once: what counts as "the device cannot be reached", and when the session has ended.

import { Exchange } from "./exchange.js";
import { JsonMembers } from "./json-members.js";

// How the device program itself refuses a request for which it has no room; its web server's 503 is a page.
const OWN_UNAVAILABLE = "503 Service Unavailable\n";

/** A request that did not succeed. Its message is for the person in front of the page. */
export class DeviceError extends Error {
  /**
   * @param {"unreachable"|"session-ended"|"refused"} kind what happened
   * @param {string} message the text for the person
   * @param {number} status the HTTP status, 0 when there was no answer
   */
  constructor(kind, message, status = 0) {
    super(message);
    this.name = "DeviceError";
    this.kind = kind;
    this.status = status;
  }
}

/**
 * Emits "reachable" and "unreachable" (with the DeviceError as detail) after requests, "session-ended" when the device
 * does not know the session (any more), and "signed-out" after a logout.
 */
export class DeviceClient extends EventTarget {
  /** Reads a JSON document. Throws a DeviceError. */
  async get(path) {
    return this.#jsonOf(await this.#sessionRequest(path, { method: "GET" }));
  }

  /**
   * Reads a JSON document that may be larger than the memory: an object, whose members come one by one as
   * [name, value]. Throws a DeviceError.
   *
   * @param {AbortSignal} stop abandons the rest of the document, as does leaving the loop over the members
   */
  async *members(path, stop) {
    const exchange = new Exchange(path, { method: "GET" }, stop);
    try {
      const status = await exchange.begin();
      if (status !== 200)
        this.#requireSession(await this.#endOf(exchange, status));
      const reader = new JsonMembers();
      for await (const piece of exchange.pieces())
        yield* reader.read(piece);
      reader.end();
      this.dispatchEvent(new Event("reachable"));
    } catch (error) {
      if (stop.aborted || error.kind === "refused" || error.kind === "session-ended")
        throw error;
      throw error instanceof SyntaxError ? unreadable(200) : this.#unreachable(error, exchange.timedOut);
    } finally {
      exchange.close();
    }
  }

  /** Sends a value as JSON; the result is the JSON document of the answer. Throws a DeviceError. */
  async post(path, value) {
    return this.#jsonOf(await this.#sessionRequest(path, jsonRequest(value)));
  }

  /**
   * The same with the method PUT.
   *
   * @param {Object<number, string>} refusals what statuses mean here, for the person
   */
  async put(path, value, refusals = {}) {
    return this.#jsonOf(await this.#sessionRequest(path, jsonRequest(value, "PUT"), refusals));
  }

  /** Has the device remove what the path names; the result is the JSON document of the answer. Throws a DeviceError. */
  async remove(path) {
    return this.#jsonOf(await this.#sessionRequest(path, { method: "DELETE" }));
  }

  /** Makes a session. @return whether the device accepted the user's name and password. */
  async login(user, password) {
    const response = await this.#request("/api/login", jsonRequest({ user, password }));
    if (response.status === 401)
      return false;
    this.#requireSuccess(response);
    return true;
  }

  /** Ends the session; one that has ended already is as good. */
  async logout() {
    const response = await this.#request("/api/logout", jsonRequest({}));
    if (response.status !== 401)
      this.#requireSuccess(response);
    this.dispatchEvent(new Event("signed-out"));
  }

  async #sessionRequest(path, options, refusals) {
    const response = await this.#request(path, options, refusals);
    this.#requireSession(response);
    return response;
  }

  async #request(path, options, refusals = {}) {
    const exchange = new Exchange(path, options);
    try {
      const response = await this.#endOf(exchange, await exchange.begin(), refusals);
      this.dispatchEvent(new Event("reachable"));
      return response;
    } catch (error) {
      throw this.#unreachable(error, exchange.timedOut);
    }
  }

  // The body counts as well: a connection may break in the middle of it.
  async #endOf(exchange, status, refusals = {}) {
    const text = await exchange.text();
    const message = messageIn(text) || (refusals[status] ?? "");
    if (status >= 500 && message === "" && text !== OWN_UNAVAILABLE)
      throw new DeviceError("unreachable", serverErrorText(status), status);
    return { status, text, message };
  }

  #requireSession(response) {
    if (response.status === 401) {
      this.dispatchEvent(new Event("session-ended"));
      throw new DeviceError("session-ended", "Your session has ended.", 401);
    }
    this.#requireSuccess(response);
  }

  #unreachable(cause, timedOut) {
    let error = cause;
    if (!(cause instanceof DeviceError)) {
      error = new DeviceError("unreachable", timedOut
        ? "The device cannot be reached: it does not answer."
        : "The device cannot be reached. Is it switched on and connected to the network?");
    }
    this.dispatchEvent(new CustomEvent("unreachable", { detail: error }));
    return error;
  }

  #requireSuccess(response) {
    if (response.status < 200 || response.status > 299)
      throw new DeviceError("refused", refusalText(response), response.status);
  }

  #jsonOf(response) {
    try {
      return JSON.parse(response.text);
    } catch {
      throw unreadable(response.status);
    }
  }
}

function unreadable(status) {
  return new DeviceError("refused", "The device sent an answer that cannot be read.", status);
}

function jsonRequest(value, method = "POST") {
  return { method, headers: { "Content-Type": "application/json" }, body: JSON.stringify(value) };
}

// Some services say why, in words for a person.
function messageIn(text) {
  try {
    const { message } = JSON.parse(text);
    return typeof message === "string" ? message : "";
  } catch {
    return ""; // no document
  }
}

function refusalText({ status, message }) {
  return message || `The device refused the request (status ${status}).`;
}

// 502 to 504 come from the web server on behalf of a device program that does not run or does not answer.
function serverErrorText(status) {
  return status >= 502 && status <= 504
    ? `The device cannot be reached: its web server runs, but the program behind it does not (status ${status}).`
    : `The device cannot be reached: it reports an error of its own (status ${status}).`;
}
