// What the device takes for a host.

/** Host names are shorter; a dot at the end, which denotes the root, does not count. */
export const HOST_NAME_LIMIT = 253;

const LABEL = /^[A-Za-z0-9](?:[A-Za-z0-9-]{0,61}[A-Za-z0-9])?$/;

/** Decimal, whatever zeros lead. */
export function isIpv4Address(text) {
  return /^\d+(\.\d+){3}$/.test(text) && text.split(".").every((number) => Number(number) <= 255);
}

export function isHostName(text) {
  const name = text.endsWith(".") ? text.slice(0, -1) : text;
  return name.length < HOST_NAME_LIMIT && !/^\d+\.\d+\.\d+\.\d+/.test(name)
    && name.split(".").every((label) => LABEL.test(label));
}
