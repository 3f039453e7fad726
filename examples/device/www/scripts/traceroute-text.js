// Reads what a traceroute command writes: BusyBox's first of all, and tolerantly that of others.

const HOP = /^\s*(\d+)(?:\s+(.*))?$/;
const TOKEN = /\*|(\d+(?:\.\d+)?)\s*ms\b|(!\S*)|\(([^()\s]*)\)|\[[^\]]*\]|(\S+)/g;

// What follows a time (traceroute(8)); a number is the code of an ICMP message.
const NOTES = {
  "!H": "host unreachable", "!N": "network unreachable", "!P": "protocol unreachable", "!S": "source route failed",
  "!F": "fragmentation needed", "!X": "forbidden by an administrator", "!A": "forbidden by an administrator",
  "!C": "forbidden by an administrator", "!Z": "host forbidden", "!T": "unreachable for this type of service",
  "!U": "unreachable", "!V": "host precedence violation", "!": "time to live of 1 or less in the reply",
};

/** What a note such as "!H" means, or "". */
export function noteMeaning(note) {
  return NOTES[note.replace(/^!F-.*/, "!F")] ?? (/^!<?\d+>?$/.test(note) ? "unreachable, with this ICMP code" : "");
}

/**
 * @param {string} text which may end in the middle of a line
 * @return {{hops: object[], messages: string[]}} the hops as {number, routers: [{name, address}], probes: [{time, note,
 * router}]} with the time in milliseconds as text, null when no reply came, and the index of the router; and the lines
 * that are about something else, such as errors
 */
export function readTraceroute(text) {
  const lines = text.split(/\r?\n/);
  // A time that is not complete yet could be taken for a host.
  lines.push(lines.pop().replace(/(\S\s+)\d+\.?\d*\s*m?$/, "$1"));
  const hops = [];
  const messages = [];
  for (const line of lines) {
    const hop = line.match(HOP);
    if (hop) {
      hops.push({ number: Number(hop[1]), routers: [], probes: [] });
      readReplies(hops.at(-1), hop[2] ?? "");
    } else if (/^\s+\S/.test(line) && hops.length > 0) {
      readReplies(hops.at(-1), line);
    } else if (line.trim() !== "" && !/^traceroute to /.test(line)) {
      messages.push(line.trim());
    }
  }
  return { hops, messages };
}

function readReplies(hop, text) {
  for (const [token, time, note, address, word] of text.matchAll(TOKEN)) {
    const router = hop.routers.length - 1;
    if (token === "*")
      hop.probes.push({ time: null, note: "", router: -1 });
    else if (time !== undefined)
      hop.probes.push({ time, note: "", router });
    else if (note !== undefined && hop.probes.length > 0)
      hop.probes.at(-1).note = note;
    else if (address !== undefined && isAddressOfName(hop, address))
      hop.routers.at(-1).address = address;
    else if (word !== undefined)
      hop.routers.push(isAddress(word) ? { name: "", address: word } : { name: word, address: "" });
  }
}

// The time to live of the reply may stand in brackets as well.
function isAddressOfName({ routers }, text) {
  return routers.length > 0 && routers.at(-1).address === "" && !/^\d+$/.test(text);
}

function isAddress(text) {
  return /^\d+(\.\d+){3}$/.test(text) || /^[0-9a-f:]*:[0-9a-f:.]*$/i.test(text);
}
