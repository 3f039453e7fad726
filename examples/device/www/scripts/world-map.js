// A map of the world with points on it that can be chosen by pointer and by keyboard. The map is equirectangular: one
// unit of its coordinate system is one degree, with north up.

import { svgElement } from "./dom.js";

const WORLD_WIDTH = 360;
const WORLD_HEIGHT = 180;
const LARGEST_ZOOM = 16;

// How near to a point a pointer has to be, in pixels.
const HOVER_DISTANCE = 12;
const CHOOSE_DISTANCE = 24;

// A pointer that moved farther than this between down and up, in pixels, has dragged.
const DRAG_DISTANCE = 5;

const DIRECTIONS = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };

/** Emits "choose" with the point's id as detail. */
export class WorldMap extends EventTarget {
  #root;
  #svg;
  #label;
  #points = [];
  #chosen = null;
  #zoom = 1;
  #center = { x: 0, y: 0 };
  #drag = null;

  /** @param {HTMLElement} root the element with the map's SVG, its label and its zoom buttons */
  constructor(root) {
    super();
    this.#root = root;
    this.#svg = root.querySelector(".map-world");
    this.#label = root.querySelector(".map-label");
    this.#svg.querySelector(".map-grid").setAttribute("d", gridPath());
    this.#svg.addEventListener("keydown", (event) => this.#keyPressed(event));
    this.#svg.addEventListener("pointerdown", (event) => this.#pointerDown(event));
    this.#svg.addEventListener("pointermove", (event) => this.#pointerMoved(event));
    this.#svg.addEventListener("pointerup", (event) => this.#pointerUp(event));
    this.#svg.addEventListener("pointercancel", () => { this.#drag = null; });
    this.#svg.addEventListener("pointerleave", () => this.#showLabel(null));
    root.querySelector("[data-zoom=in]").addEventListener("click", () => this.zoomBy(2));
    root.querySelector("[data-zoom=out]").addEventListener("click", () => this.zoomBy(0.5));
    this.#showWindow();
  }

  /** @param {{id: string, label: string, latitude: number, longitude: number}[]} points */
  setPoints(points) {
    this.#points = points.map(({ id, label, latitude, longitude }) => {
      const x = longitude;
      const y = -latitude;
      const dot = svgElement("path", { class: "map-point", d: dotPath(x, y), "data-id": id });
      return { id, label, x, y, dot, shown: true };
    });
    this.#svg.querySelector(".map-points").replaceChildren(...this.#points.map((point) => point.dot));
    this.choose(null);
  }

  /** Dims the points whose ids are not in the set. */
  filter(ids) {
    for (const point of this.#points) {
      point.shown = ids.has(point.id);
      point.dot.classList.toggle("map-point-dimmed", !point.shown);
    }
  }

  /** Marks the point with this id as chosen, or none, and brings it into view. */
  choose(id) {
    this.#chosen = this.#points.find((point) => point.id === id) ?? null;
    const dot = this.#chosen ? dotPath(this.#chosen.x, this.#chosen.y) : "";
    this.#svg.querySelector(".map-chosen").setAttribute("d", dot);
    this.#svg.querySelector(".map-chosen-halo").setAttribute("d", dot);
    this.#svg.querySelector(".map-cross").setAttribute("d", this.#chosen ? crossPath(this.#chosen) : "");
    if (this.#chosen && this.#zoom > 1)
      this.#moveTo(this.#chosen);
  }

  /** Makes the map larger or smaller by a factor, around the chosen point if there is one. */
  zoomBy(factor) {
    this.#zoom = Math.max(1, Math.min(LARGEST_ZOOM, this.#zoom * factor));
    this.#moveTo(this.#chosen ?? this.#center);
  }

  #moveTo({ x, y }) {
    const halfWidth = WORLD_WIDTH / this.#zoom / 2;
    const halfHeight = WORLD_HEIGHT / this.#zoom / 2;
    this.#center = {
      x: clamp(x, -WORLD_WIDTH / 2 + halfWidth, WORLD_WIDTH / 2 - halfWidth),
      y: clamp(y, -WORLD_HEIGHT / 2 + halfHeight, WORLD_HEIGHT / 2 - halfHeight),
    };
    this.#showWindow();
  }

  #showWindow() {
    const width = WORLD_WIDTH / this.#zoom;
    const height = WORLD_HEIGHT / this.#zoom;
    const { x, y } = this.#center;
    this.#svg.setAttribute("viewBox", `${x - width / 2} ${y - height / 2} ${width} ${height}`);
    this.#svg.classList.toggle("map-world-movable", this.#zoom > 1);
    this.#root.querySelector("[data-zoom=in]").disabled = this.#zoom >= LARGEST_ZOOM;
    this.#root.querySelector("[data-zoom=out]").disabled = this.#zoom <= 1;
    this.#showLabel(null);
  }

  // A pixel of the screen in degrees.
  #degreesPerPixel() {
    return WORLD_WIDTH / this.#zoom / this.#svg.getBoundingClientRect().width;
  }

  #placeOf(event) {
    const box = this.#svg.getBoundingClientRect();
    const scale = this.#degreesPerPixel();
    return {
      x: this.#center.x + (event.clientX - box.left - box.width / 2) * scale,
      y: this.#center.y + (event.clientY - box.top - box.height / 2) * scale,
    };
  }

  /** The nearest point that the filter shows, no farther away than this many pixels. */
  #pointNear(place, pixels) {
    let nearest = null;
    let distance = pixels * this.#degreesPerPixel();
    for (const point of this.#points) {
      const candidate = Math.hypot(point.x - place.x, point.y - place.y);
      if (point.shown && candidate <= distance) {
        nearest = point;
        distance = candidate;
      }
    }
    return nearest;
  }

  #pointerDown(event) {
    if (event.button !== 0)
      return;
    this.#drag = { startX: event.clientX, startY: event.clientY, center: this.#center, moved: false };
    if (this.#zoom > 1)
      this.#svg.setPointerCapture(event.pointerId);
  }

  #pointerMoved(event) {
    if (!this.#drag) {
      if (event.pointerType === "mouse")
        this.#showLabel(this.#pointNear(this.#placeOf(event), HOVER_DISTANCE));
      return;
    }
    const deltaX = event.clientX - this.#drag.startX;
    const deltaY = event.clientY - this.#drag.startY;
    this.#drag.moved ||= Math.hypot(deltaX, deltaY) > DRAG_DISTANCE;
    if (this.#drag.moved && this.#zoom > 1) {
      const scale = this.#degreesPerPixel();
      this.#moveTo({ x: this.#drag.center.x - deltaX * scale, y: this.#drag.center.y - deltaY * scale });
    }
  }

  #pointerUp(event) {
    const wasClick = this.#drag && !this.#drag.moved;
    this.#drag = null;
    if (wasClick)
      this.#announceChoice(this.#pointNear(this.#placeOf(event), CHOOSE_DISTANCE));
  }

  #keyPressed(event) {
    if (event.altKey || event.ctrlKey || event.metaKey)
      return;
    if (event.key in DIRECTIONS)
      this.#announceChoice(this.#pointTowards(...DIRECTIONS[event.key]));
    else if (event.key === "+" || event.key === "=")
      this.zoomBy(2);
    else if (event.key === "-")
      this.zoomBy(0.5);
    else
      return;
    event.preventDefault();
  }

  // The point that a person would call the next one in a direction: near, and not far off to the side.
  #pointTowards(directionX, directionY) {
    if (!this.#chosen)
      return this.#pointNear(this.#center, Infinity);
    let next = null;
    let shortest = Infinity;
    for (const point of this.#points) {
      const deltaX = point.x - this.#chosen.x;
      const deltaY = point.y - this.#chosen.y;
      const ahead = deltaX * directionX + deltaY * directionY;
      const aside = Math.abs(deltaX * directionY) + Math.abs(deltaY * directionX);
      const cost = ahead + 2 * aside;
      if (point.shown && ahead > 0 && aside <= 2 * ahead && cost < shortest) {
        next = point;
        shortest = cost;
      }
    }
    return next;
  }

  #announceChoice(point) {
    if (!point)
      return;
    this.choose(point.id);
    this.dispatchEvent(new CustomEvent("choose", { detail: point.id }));
  }

  #showLabel(point) {
    this.#label.hidden = point === null;
    this.#svg.classList.toggle("map-world-pointing", point !== null);
    if (point === null)
      return;
    this.#label.textContent = point.label;
    const scale = this.#degreesPerPixel();
    const box = this.#svg.getBoundingClientRect();
    const left = box.width / 2 + (point.x - this.#center.x) / scale;
    const top = box.height / 2 + (point.y - this.#center.y) / scale;
    const half = this.#label.offsetWidth / 2;
    this.#label.style.left = `${clamp(left, half, box.width - half)}px`;
    this.#label.style.top = `${top}px`;
    this.#label.classList.toggle("map-label-below", top < 40);
  }
}

function clamp(value, least, most) {
  return Math.max(least, Math.min(most, value));
}

// A line of no length with round ends is a dot whose size does not depend on the zoom (stroke widths are in pixels).
function dotPath(x, y) {
  return `M${x} ${y}h0`;
}

function crossPath({ x, y }) {
  return `M${-WORLD_WIDTH / 2} ${y}H${WORLD_WIDTH / 2}M${x} ${-WORLD_HEIGHT / 2}V${WORLD_HEIGHT / 2}`;
}

// A line every 15 degrees of longitude, an hour of the sun, and every 30 degrees of latitude.
function gridPath() {
  let path = "";
  for (let longitude = -165; longitude < 180; longitude += 15)
    path += `M${longitude} -90V90`;
  for (let latitude = -60; latitude <= 60; latitude += 30)
    path += `M-180 ${latitude}H180`;
  return path;
}
