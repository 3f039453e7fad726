// Takes a JSON object apart into its members while its text comes in, so that an object larger than the memory can be
// read. What is inside a member is left to JSON.parse(); here only the ends of the members are found.

const MARKS = /["{}[\],]/g;
const MARKS_IN_STRING = /["\\]/g;

export class JsonMembers {
  #pieces = []; // of the member that has begun, or of what is outside of the object
  #depth = 0; // of the object itself 1
  #inString = false;
  #isEscaped = false;
  #hasBegun = false;
  #count = 0;

  /**
   * Takes the next piece of the text.
   *
   * @returns {Iterable} the members that end in it, as [name, value]; throws a SyntaxError when the text is no object
   */
  *read(text) {
    let begin = 0; // of what has not been put aside yet
    let position = 0;
    if (this.#isEscaped && text !== "") {
      this.#isEscaped = false;
      position = 1;
    }
    for (;;) {
      const marks = this.#inString ? MARKS_IN_STRING : MARKS;
      marks.lastIndex = position;
      if (!marks.test(text))
        break;
      position = marks.lastIndex;
      const mark = text[position - 1];
      if (mark === "\\") {
        this.#isEscaped = position === text.length;
        position += 1;
      } else if (mark === "\"") {
        this.#inString = !this.#inString;
      } else if (this.#depth === 0) {
        this.#begin(mark, text.slice(begin, position - 1));
        begin = position;
      } else if (this.#depth === 1 && ",}]".includes(mark)) {
        this.#pieces.push(text.slice(begin, position - 1));
        begin = position;
        yield* this.#member(mark);
      } else if (mark !== ",") {
        this.#depth += "{[".includes(mark) ? 1 : -1;
      }
    }
    this.#pieces.push(text.slice(begin));
  }

  /** Throws a SyntaxError when the object is not complete, or when anything follows it. */
  end() {
    if (!this.#hasBegun || this.#depth !== 0)
      throw new SyntaxError("The object is not complete.");
    this.#requireBlank(this.#pieces.join(""));
  }

  #begin(mark, before) {
    this.#requireBlank(this.#pieces.join("") + before);
    if (mark !== "{" || this.#hasBegun)
      throw new SyntaxError(`There is "${mark}" outside of the object.`);
    this.#pieces = ["{"];
    this.#hasBegun = true;
    this.#depth = 1;
  }

  *#member(mark) {
    const isLast = mark === "}";
    const members = Object.entries(JSON.parse(this.#pieces.join("") + "}"));
    this.#pieces = isLast ? [] : ["{"];
    this.#depth = isLast ? 0 : 1;
    // Only an object without any members may have nothing before its end.
    if (isLast && this.#count === 0 && members.length === 0)
      return;
    if (mark === "]" || members.length !== 1)
      throw new SyntaxError("A member cannot be read.");
    this.#count += 1;
    yield members[0];
  }

  #requireBlank(text) {
    if (text.trim() !== "")
      throw new SyntaxError("There is more than one object.");
  }
}
