// Messages about what a person has filled in: shown in the form, and connected with the fields that they are about.

/** The message of one field, beside it; the field's aria-describedby names it. */
export class FieldMessage {
  #field;
  #output;

  constructor(field, output) {
    this.#field = field;
    this.#output = output;
  }

  /** Shows a text and marks the field as invalid, or neither when the text is empty. */
  show(text) {
    // A screen reader would read it again.
    if (this.#output.textContent !== text)
      this.#output.textContent = text;
    this.#field.setAttribute("aria-invalid", String(text !== ""));
  }
}

/** The message of a form and the fields that it is about, for the eye and for screen readers. */
export class FormMessage {
  #output;
  #fields = [];

  /**
   * @param {HTMLFormElement} form
   * @param {HTMLElement} output an element of the form with an id
   */
  constructor(form, output) {
    this.#output = output;
    form.addEventListener("input", (event) => {
      if (this.#fields.includes(event.target))
        this.#unmark();
    });
  }

  /** Shows a text, or nothing when it is empty, and marks the fields that it is about as invalid. */
  show(text, fields = []) {
    this.#unmark();
    this.#output.textContent = text;
    this.#output.hidden = text === "";
    this.#fields = fields;
    for (const field of fields) {
      field.setAttribute("aria-invalid", "true");
      const own = field.getAttribute("aria-describedby");
      field.dataset.describedby = own ?? "";
      field.setAttribute("aria-describedby", own ? `${this.#output.id} ${own}` : this.#output.id);
    }
  }

  // The text stays until the form is sent again, but what is being corrected is not called invalid.
  #unmark() {
    for (const field of this.#fields) {
      field.removeAttribute("aria-invalid");
      if (field.dataset.describedby)
        field.setAttribute("aria-describedby", field.dataset.describedby);
      else
        field.removeAttribute("aria-describedby");
      delete field.dataset.describedby;
    }
    this.#fields = [];
  }
}
