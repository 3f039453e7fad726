// What the device accepts as the parts of a proxy server, and what an exception covers, in words.

import { HOST_NAME_LIMIT, isHostName, isIpv4Address } from "./host-names.js";

const PORT_LIMIT = 65535;
const ADDRESS_BITS = 32;

/** What is wrong with the host of a server; empty when nothing is. */
export function hostFault(text) {
  if (isIpv4Address(text) || isHostName(text))
    return "";
  if (text.includes("/"))
    return "Only the host belongs here, such as proxy.plant.lan, without “http://” and “/”.";
  if (text.includes(":"))
    return "The port has a field of its own. The device does not take IPv6 addresses here.";
  if (/^\d+\.\d+\.\d+\.\d+/.test(text))
    return "An IPv4 address has four numbers from 0 to 255.";
  const [character] = text.match(/[^A-Za-z0-9.-]/u) ?? [];
  if (character)
    return /\s/.test(character) ? "A host name has no blanks." : `A host name has no “${character}”.`;
  if (text.length >= HOST_NAME_LIMIT)
    return `A host name has fewer than ${HOST_NAME_LIMIT} characters.`;
  return text.includes("-") && /(^|\.)-|-(\.|$)/.test(text) ? "A hyphen cannot be at the beginning or end, nor beside a dot."
    : "Between its dots a host name has 1 to 63 characters.";
}

/** The same for its port. */
export function portFault(text) {
  const isPort = /^\d+$/.test(text) && Number(text) >= 1 && Number(text) <= PORT_LIMIT;
  return isPort ? "" : `A port is a number from 1 to ${PORT_LIMIT}.`;
}

/** The same for any text: the configuration of the device is in Latin-1. */
export function storageFault(text) {
  const [character] = text.match(/[^\u0000-\u00ff]/u) ?? [];
  return character ? `The device cannot store “${character}”, only Latin-1 characters.` : "";
}

function addressNumber(text) {
  return text.split(".").reduce((sum, number) => sum * 256 + Number(number), 0);
}

function addressText(number) {
  return [24, 16, 8, 0].map((shift) => (number >>> shift) & 255).join(".");
}

/** The first and the last address of a range, or null for a mask with holes; undefined when the text is no range. */
function rangeOf(text) {
  const [address, mask, ...rest] = text.split("/");
  const isLength = /^\d+$/.test(mask ?? "") && Number(mask) <= ADDRESS_BITS;
  if (rest.length > 0 || mask === undefined || !isIpv4Address(address) || !(isLength || isIpv4Address(mask)))
    return undefined;
  const size = isLength ? 2 ** (ADDRESS_BITS - Number(mask)) : 2 ** ADDRESS_BITS - addressNumber(mask);
  if (!Number.isInteger(Math.log2(size)))
    return null;
  const first = addressNumber(address) - addressNumber(address) % size;
  return [first, first + size - 1].map(addressText);
}

/**
 * What an exception covers and what not, as two texts. "isVoid" is whether it covers nothing, which is
 * probably a mistake.
 */
export function explainException(text) {
  const range = isIpv4Address(text) ? rangeOf(`${text}/32`) : rangeOf(text);
  if (range !== undefined)
    return explainRange(range);
  if (text === "local") {
    return { isVoid: false, covers: "Covers host names without a dot, such as “printer”, and IPv6 addresses.",
      not: "Not “printer.lan”, and no IPv4 address." };
  }
  const fault = nameFault(text);
  return fault ? { isVoid: true, covers: `Covers nothing: ${fault}`, not: "" } : explainSuffix(text);
}

function explainRange(range) {
  if (range === null) {
    return { isVoid: true, not: "",
      covers: "Covers nothing: the mask has holes. Its bits must be ones on the left and zeros on the right." };
  }
  const [first, last] = range;
  if (first === last) {
    return { isVoid: false, covers: `Covers the address ${first} alone.`, not: "Not host names that resolve to it." };
  }
  return { isVoid: false, covers: `Covers the addresses from ${first} to ${last}.`,
    not: "Not host names that resolve to one of them." };
}

function nameFault(text) {
  const [character] = text.match(/[\s*/,;"'<>()[\]@?#\\|]/) ?? [];
  if (text.startsWith("*."))
    return `“*” has no special meaning. “${text.slice(1)}” covers all hosts of the domain.`;
  if (character === "/")
    return "this is no range of IPv4 addresses, and no host name has a “/” in it.";
  if (character)
    return /\s/.test(character) ? "no host name has a blank in it." : `no host name has a “${character}” in it.`;
  return text === text.toLowerCase() ? ""
    : `requests have host names in lower case. Write “${text.toLowerCase()}”.`;
}

function explainSuffix(text) {
  if (text.startsWith(".")) {
    return { isVoid: false, covers: `Covers host names that end in “${text}”, such as “cam${text}”.`,
      not: `Not “${text.slice(1)}” itself, and not the addresses of these hosts.` };
  }
  return { isVoid: false,
    covers: `Covers “${text}” and all host names that end in it: “cam.${text}”, but also “bad${text}”.`,
    not: `Not the addresses of these hosts. “.${text}” would not cover “bad${text}”.` };
}
