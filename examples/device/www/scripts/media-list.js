// The removable media and the firmware packages on them.

import { element } from "./dom.js";
import { sizeText } from "./sizes.js";

const TYPES = { usb: "USB", mmc: "Memory card", unknown: "Medium" };

/**
 * @param {function(string, string)} install is called with the name of the medium and that of the package
 * @returns the list as elements
 */
export function mediaItems(media, isRunning, install) {
  return media.map((medium) => element("li", { class: "medium" },
    element("div", { class: "medium-title" },
      element("h3", {}, medium.label || "Without a label"),
      element("span", { class: "medium-kind" }, `${TYPES[medium.type] ?? TYPES.unknown}, ${medium.name}`),
      ...(medium.readOnly ? [element("span", { class: "badge" }, "Write-protected")] : [])),
    ...spaceOf(medium),
    packageList(medium, isRunning, install)));
}

function spaceOf({ size, used, free }) {
  if (size === null)
    return [element("p", { class: "hint" }, "Its size cannot be read.")];
  const meter = element("meter", { max: size, "aria-label": "Space in use" });
  meter.value = used;
  return [element("p", { class: "medium-space" }, `${sizeText(free)} free of ${sizeText(size)}`, meter)];
}

function packageList({ name, label, packages }, isRunning, install) {
  if (packages.length === 0)
    return element("p", { class: "hint" }, "No firmware package (.swu) in its top folder.");
  return element("ul", { class: "medium-packages" }, ...packages.map((file) => {
    const button = element("button", { type: "button", "data-package": `${name}/${file}` }, "Install",
      element("span", { class: "visually-hidden" }, ` ${file} from ${label || name}`));
    button.disabled = isRunning;
    button.addEventListener("click", () => install(name, file));
    return element("li", {}, element("span", { class: "package-file" }, file), button);
  }));
}
