// What a page has seen of a ping, put together from the states that the device reports after each ping.

const KEPT_POINTS = 60;

/**
 * A point is one ping: {number, kind, time}, with the kinds
 * - "time": answered after that many microseconds;
 * - "untimed": answered, but the device could not read the time;
 * - "lost": not answered;
 * - "unseen": ended while this page was not there to see it.
 */
export class PingHistory {
  points = [];
  /** The latest state; null without any. */
  state = null;
  /** The number of the first ping that was seen; 0 before it. */
  firstNumber = 0;
  untimedCount = 0;

  #timeCount = 0;
  #timeSum = 0;
  #fastest = Infinity;
  #slowest = 0;
  #differenceCount = 0;
  #differenceSum = 0;
  #previousTime = null;
  #unseenCount = 0;
  #sumRange = [0, 0];

  /**
   * Takes the next state.
   * @param {boolean} isEvent whether it comes from the event stream, which may repeat older states after a break
   * @return whether it is of a new run, or of another one than before
   */
  take(state, isEvent) {
    const sent = state.statistics.sent;
    const known = this.state?.statistics.sent ?? 0;
    if (isEvent && sent > 0 && sent < known)
      return false;
    const isStarted = state.started && !this.state?.started && (sent === 0 || !isEvent);
    const isNew = this.state === null || sent < known || isStarted || !hasSameParameters(state, this.state);
    if (isNew)
      this.#begin(state);
    else if (sent > known)
      this.#addPings(state, known);
    this.state = state;
    return isNew;
  }

  /** All pings have been seen. */
  get isComplete() {
    return this.state !== null && this.#unseenCount === 0;
  }

  /** Fastest, mean and slowest time; each null when it is not known. */
  get times() {
    const { good, fastest, slowest, meanTime } = this.state.statistics;
    if (this.isComplete) {
      return this.#timeCount === 0 ? { fastest: null, mean: null, slowest: null }
        : { fastest: this.#fastest, mean: this.#timeSum / this.#timeCount, slowest: this.#slowest };
    }
    // With a reply without a time the device reports 0 as the fastest, and a mean that is too small.
    const known = (time) => (time > 0 ? time : null);
    return { fastest: known(fastest), mean: good > 0 && this.untimedCount === 0 ? known(meanTime) : null,
      slowest: known(slowest) };
  }

  /** The mean difference of successive times, whichever was longer (as in RFC 3550, section 6.4.1); null without any. */
  get jitter() {
    return this.#differenceCount === 0 ? null : this.#differenceSum / this.#differenceCount;
  }

  #begin(state) {
    const sent = state.statistics.sent;
    Object.assign(this, { points: [], firstNumber: 0, untimedCount: 0 });
    this.#timeCount = this.#timeSum = this.#slowest = this.#differenceCount = this.#differenceSum = 0;
    this.#fastest = Infinity;
    this.#previousTime = null;
    this.#unseenCount = sent;
    this.#sumRange = sumRangeOf(state);
    // The first ping may have ended before the first state came.
    if (sent === 1) {
      this.#unseenCount = 0;
      this.#sumRange = [0, 0];
      this.#addPing(state, { ttl: 0, replyTime: 0 });
    }
  }

  #addPings(state, known) {
    const sent = state.statistics.sent;
    for (let number = Math.max(known + 1, sent - KEPT_POINTS); number < sent; number += 1)
      this.#add({ number, kind: "unseen", time: null });
    if (sent > known + 1) {
      this.#unseenCount += sent - known - 1;
      this.#previousTime = null;
      this.#sumRange = sumRangeOf(state);
    }
    this.#addPing(state, this.state.last ?? { ttl: 0, replyTime: 0 });
  }

  #addPing(state, previous) {
    const { good, ttl, replyTime } = state.last;
    const number = state.statistics.sent;
    if (this.firstNumber === 0)
      this.firstNumber = number;
    if (!good)
      this.#add({ number, kind: "lost", time: null });
    else if (ttl === 0 || !this.#isRead(state, previous))
      this.#addUntimed(number);
    else
      this.#addTime(number, replyTime);
  }

  // After a reply whose time it could not read, the device reports the time of the reply before. The mean shows which it
  // was: the sum of the times, of which the mean gives the range, has grown by this time or not. Where both are possible,
  // the time is the same again: that happens with very short times only, which the device can read from every ping.
  #isRead(state, previous) {
    const { ttl, replyTime } = state.last;
    const grown = this.#sumRange.map((sum) => sum + replyTime);
    const read = intersection(grown, sumRangeOf(state));
    const isRead = replyTime !== previous.replyTime || ttl !== previous.ttl || read !== null;
    this.#sumRange = (isRead ? read : intersection(this.#sumRange, sumRangeOf(state))) ?? sumRangeOf(state);
    return isRead;
  }

  #addUntimed(number) {
    this.untimedCount += 1;
    this.#previousTime = null;
    this.#add({ number, kind: "untimed", time: null });
  }

  #addTime(number, time) {
    this.#timeCount += 1;
    this.#timeSum += time;
    this.#fastest = Math.min(this.#fastest, time);
    this.#slowest = Math.max(this.#slowest, time);
    if (this.#previousTime !== null) {
      this.#differenceCount += 1;
      this.#differenceSum += Math.abs(time - this.#previousTime);
    }
    this.#previousTime = time;
    this.#add({ number, kind: "time", time });
  }

  #add(point) {
    this.points.push(point);
    if (this.points.length > KEPT_POINTS)
      this.points.shift();
  }
}

function hasSameParameters({ parameters: one }, { parameters: other }) {
  return ["host", "count", "timeout", "delay"].every((name) => one[name] === other[name]);
}

/** The least and the greatest sum of times with this mean, which is rounded down. */
function sumRangeOf({ statistics: { good, meanTime } }) {
  return [meanTime * good, meanTime * good + Math.max(good - 1, 0)];
}

function intersection(one, other) {
  const range = [Math.max(one[0], other[0]), Math.min(one[1], other[1])];
  return range[0] <= range[1] ? range : null;
}
