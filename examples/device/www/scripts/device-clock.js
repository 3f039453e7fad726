// The device's local time between two answers. Its time zone may be another one than the browser's, and the browser need
// not know it: the local time is counted as if it were UTC, and read from the UTC fields of a date.

export const DAYS = ["Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"];

/** The milliseconds of a local time such as "2024-01-05T12:30:00". */
export function millisecondsOf(localTime) {
  return Date.parse(`${localTime}Z`);
}

/** The day of the week, 1 for Monday. */
export function dayOf(date) {
  return date.getUTCDay() || 7;
}

/** The time of the day as "12:30:00", in 24 hours whatever the language of the browser is. */
export function timeText(date) {
  return date.toISOString().slice(11, 19);
}

export class DeviceClock {
  #offset = null;

  set(localTime) {
    this.#offset = millisecondsOf(localTime) - performance.now();
  }

  forget() {
    this.#offset = null;
  }

  /** The device's local time in the UTC fields of a date, or null while it is not known. */
  get time() {
    return this.#offset === null ? null : new Date(performance.now() + this.#offset);
  }
}
