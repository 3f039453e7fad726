// The reply times of the latest pings as a line, drawn in the size that there is.

import { svgElement } from "./dom.js";
import { timeText } from "./reply-times.js";

const SLOTS = 60;
const HEIGHT = 220;
const MARGIN = { left: 64, right: 10, top: 12, bottom: 26 };
const LOWEST_SCALE = 100; // microseconds
const CROSS = 4; // half of its width

export class PingChart {
  #svg;
  #points = [];
  #resized = new ResizeObserver(() => this.#draw());

  /** @param {SVGElement} svg */
  constructor(svg) {
    this.#svg = svg;
    this.#resized.observe(svg.parentElement);
  }

  /**
   * @param {object[]} points see PingHistory
   * @param {string} description the same as text
   */
  show(points, description) {
    this.#points = points;
    this.#svg.setAttribute("aria-label", description);
    this.#draw();
  }

  close() {
    this.#resized.disconnect();
  }

  #draw() {
    const width = Math.max(this.#svg.parentElement.clientWidth, 160);
    const area = { left: MARGIN.left, right: width - MARGIN.right, top: MARGIN.top, bottom: HEIGHT - MARGIN.bottom };
    const top = scaleEnd(Math.max(LOWEST_SCALE, ...this.#points.map((point) => point.time ?? 0)));
    const slot = (area.right - area.left) / SLOTS;
    const x = (index) => area.left + (index + 0.5) * slot;
    const y = (time) => area.bottom - (area.bottom - area.top) * time / top;

    this.#svg.setAttribute("viewBox", `0 0 ${width} ${HEIGHT}`);
    this.#svg.setAttribute("height", HEIGHT);
    this.#svg.replaceChildren(...this.#scale(area, top, y), ...this.#numbers(area, x), ...this.#lines(x, y),
      ...this.#points.flatMap((point, index) => mark(point, x(index), y, area)));
  }

  #scale(area, top, y) {
    return [0, top / 2, top].flatMap((time) => [
      svgElement("line", { class: "chart-grid", x1: area.left, x2: area.right, y1: y(time), y2: y(time) }),
      svgElement("text", { class: "chart-text", x: area.left - 8, y: y(time) + 4, "text-anchor": "end" },
        time === 0 ? "0" : `${time / 1000} ms`),
    ]);
  }

  // The numbers of the first and the last ping that are shown.
  #numbers(area, x) {
    const last = this.#points.length - 1;
    const indices = last < 4 ? [0] : [0, last];
    return indices.filter((index) => index <= last).map((index) => svgElement("text",
      { class: "chart-text", x: x(index), y: HEIGHT - 7, "text-anchor": index > SLOTS - 3 ? "end" : "middle" },
      `#${this.#points[index].number}`));
  }

  // A line joins the times of pings that follow each other.
  #lines(x, y) {
    const lines = [[]];
    this.#points.forEach((point, index) => {
      if (point.kind === "time")
        lines.at(-1).push(`${x(index).toFixed(1)},${y(point.time).toFixed(1)}`);
      else
        lines.push([]);
    });
    return lines.filter((line) => line.length > 1)
      .map((line) => svgElement("polyline", { class: "chart-line", points: line.join(" ") }));
  }
}

function mark({ number, kind, time }, x, y, area) {
  const title = (text) => svgElement("title", {}, `Ping ${number}: ${text}`);
  if (kind === "time")
    return [svgElement("circle", { class: "chart-time", cx: x, cy: y(time), r: 2.5 }, title(timeText(time)))];
  const bottom = area.bottom - CROSS - 2;
  if (kind === "untimed")
    return [svgElement("circle", { class: "chart-untimed", cx: x, cy: bottom, r: CROSS }, title("no time"))];
  if (kind === "unseen")
    return [];
  const cross = `M${x - CROSS} ${bottom - CROSS}l${2 * CROSS} ${2 * CROSS}m0 ${-2 * CROSS}l${-2 * CROSS} ${2 * CROSS}`;
  return [svgElement("g", { class: "chart-lost" },
    svgElement("line", { class: "chart-lost-line", x1: x, x2: x, y1: area.top, y2: bottom - 2 * CROSS }),
    svgElement("path", { d: cross }), title("lost"))];
}

/** The next of 1, 2, 5, 10, 20, ... that is not less. */
function scaleEnd(time) {
  const power = 10 ** Math.floor(Math.log10(time));
  return [1, 2, 5, 10].find((factor) => factor * power >= time) * power;
}
