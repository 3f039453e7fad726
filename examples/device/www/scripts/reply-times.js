/** A reply time in microseconds as milliseconds, with four digits and never less than microseconds. */
export function timeText(microseconds) {
  const milliseconds = microseconds / 1000;
  const decimals = [1000, 100, 10].filter((limit) => milliseconds < limit).length;
  return `${milliseconds.toFixed(decimals)} ms`;
}

/** The part of pings without an answer, in percent. */
export function lossText(sent, good) {
  const loss = sent === 0 ? 0 : 100 * (sent - good) / sent;
  return `${Number(loss.toFixed(1))} %`;
}
