// Small helpers for building the page. Text from the device always goes through textContent, never through markup.

const SVG_NAMESPACE = "http://www.w3.org/2000/svg";

/** Makes an element with attributes and, as its content, texts or other elements. */
export function element(name, attributes = {}, ...content) {
  return filled(document.createElement(name), attributes, content);
}

export function svgElement(name, attributes = {}, ...content) {
  return filled(document.createElementNS(SVG_NAMESPACE, name), attributes, content);
}

function filled(node, attributes, content) {
  for (const [name, value] of Object.entries(attributes))
    node.setAttribute(name, value);
  node.append(...content);
  return node;
}

/** A copy of what is in the template with this id. */
export function fromTemplate(id) {
  return document.getElementById(id).content.cloneNode(true);
}

/** Shows a text in the elements that are marked data-field="name". */
export function showField(root, name, text) {
  for (const node of root.querySelectorAll(`[data-field="${name}"]`))
    node.textContent = text;
}

export function showPart(root, name, visible) {
  for (const node of root.querySelectorAll(`[data-part="${name}"]`))
    node.hidden = !visible;
}
