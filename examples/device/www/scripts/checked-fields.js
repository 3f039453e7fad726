// Fields that are checked while a person types, each with its own message.

/**
 * Each field has an element with the id "<id of the field>-fault" for what is wrong with it. An empty field is only
 * reported when the form is sent.
 */
export class CheckedFields {
  #form;
  #rules;

  /** @param {Object<string, function(string): string>} rules what is wrong with a text, or "", by the name of the field */
  constructor(form, rules) {
    this.#form = form;
    this.#rules = rules;
    form.addEventListener("input", ({ target }) => {
      if (target.name in rules)
        this.#show(target, target.value.trim() === "" ? "" : this.#fault(target));
    });
  }

  /** Whether all fields are right; otherwise all faults are shown, and the first of these fields has the focus. */
  check() {
    const fields = Object.keys(this.#rules).map((name) => this.#form.elements[name]);
    for (const field of fields)
      this.#show(field, this.#fault(field));
    const wrong = fields.find((field) => field.getAttribute("aria-invalid") === "true");
    wrong?.focus();
    return wrong === undefined;
  }

  /** Shows the values without any faults. */
  set(values) {
    for (const [name, value] of Object.entries(values)) {
      const field = this.#form.elements[name];
      field.value = value;
      if (name in this.#rules)
        this.#show(field, "");
    }
  }

  #fault(field) {
    return this.#rules[field.name](field.value.trim());
  }

  #show(field, fault) {
    const output = this.#form.querySelector(`#${field.id}-fault`);
    if (output.textContent !== fault)
      output.textContent = fault;
    if (fault === "")
      field.removeAttribute("aria-invalid");
    else
      field.setAttribute("aria-invalid", "true");
  }
}
