// What the device accepts as the parameters of ping and traceroute.

import { isHostName, isIpv4Address } from "./host-names.js";

const LARGEST_NUMBER = 2 ** 32 - 1;

/** What is wrong with a host, or "". */
export function hostFault(text) {
  if (text === "")
    return "Enter an IPv4 address or a host name.";
  return isIpv4Address(text) || isHostName(text) ? ""
    : "This is neither an IPv4 address, such as 192.168.0.1, nor a host name, such as router.lan.";
}

/** What is wrong with a whole number, or "". */
export function numberFault(text, least) {
  return /^\d+$/.test(text) && Number(text) >= least && Number(text) <= LARGEST_NUMBER ? ""
    : `Enter a whole number, ${least} or more.`;
}
