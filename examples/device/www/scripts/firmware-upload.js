// The upload of a firmware package. It continues when the user goes to another view of the page.

const PATH = "/api/firmware";
const PART = "package";

// Requests keep the session alive. The upload itself is a single one, which may last longer than a session without any.
const SIGN_OF_LIFE_MILLISECONDS = 60000;

/**
 * Emits "change" when the upload has begun, advanced or ended, and "end" afterwards with
 * - kind: "answered" (with the status object of the device as state), "refused" (with the HTTP status), "broken" or
 *   "cancelled".
 */
export class FirmwareUpload extends EventTarget {
  /** The package that is being sent, or was sent last. */
  name = "";
  size = 0;
  sent = 0;

  #request = null;
  #signOfLife = null;
  #ask = (event) => event.preventDefault();

  get isActive() {
    return this.#request !== null;
  }

  /** @param {File} file */
  start(client, file) {
    const request = new XMLHttpRequest();
    const form = new FormData();
    form.append(PART, file, file.name);
    this.#request = request;
    this.name = file.name;
    this.size = file.size;
    this.sent = 0;
    // The form around the file makes the request a little larger than the file.
    request.upload.addEventListener("progress", ({ loaded, total }) => {
      this.sent = total > 0 ? Math.min(file.size, Math.round(loaded / total * file.size)) : 0;
      this.#change();
    });
    request.addEventListener("load", () => this.#end(answerOf(request)));
    request.addEventListener("error", () => this.#end({ kind: "broken" }));
    request.addEventListener("abort", () => this.#end({ kind: "cancelled" }));
    window.addEventListener("beforeunload", this.#ask);
    this.#signOfLife = setInterval(() => client.get(PATH).catch(() => {}), SIGN_OF_LIFE_MILLISECONDS);
    request.open("POST", PATH);
    request.send(form);
    this.#change();
  }

  cancel() {
    this.#request?.abort();
  }

  #end(detail) {
    this.#request = null;
    clearInterval(this.#signOfLife);
    window.removeEventListener("beforeunload", this.#ask);
    this.#change();
    this.dispatchEvent(new CustomEvent("end", { detail }));
  }

  #change() {
    this.dispatchEvent(new Event("change"));
  }
}

function answerOf(request) {
  if (request.status < 200 || request.status > 299)
    return { kind: "refused", status: request.status };
  try {
    return { kind: "answered", state: JSON.parse(request.responseText) };
  } catch {
    return { kind: "broken" };
  }
}
