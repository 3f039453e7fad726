// The time zone database of the device: the towns on a map and in a list, and the TZ string of the chosen one.

import { copyText } from "./clipboard.js";
import { fromTemplate, showField, showPart } from "./dom.js";
import { SearchableList } from "./searchable-list.js";
import { WorldMap } from "./world-map.js";

const DEVICE_PATH = "/api/device";

export const timeZonesView = {
  name: "time-zones",
  title: "Time zones",

  async open(container, client) {
    const [database, device] = await Promise.all([client.get("/api/timezones"), client.get(DEVICE_PATH)]);
    return new TimeZones(container, client, zonesOf(database), database.information ?? {}, device.timeZone);
  },
};

const countryNames = new Intl.DisplayNames(["en"], { type: "region", fallback: "none" });

function countryName(code) {
  try {
    return countryNames.of(code) ?? "";
  } catch {
    // Not the form of a country code.
    return "";
  }
}

// The document is regions by name, each with its towns by name; together the names are that of the zone.
function zonesOf(database) {
  const zones = [];
  for (const [regionKey, region] of Object.entries(database.content ?? {})) {
    for (const [townKey, town] of Object.entries(region.towns)) {
      zones.push({
        id: `${regionKey}/${townKey}`,
        region: region.regionName,
        name: town.townName,
        code: town.timezoneCode,
        countryCode: town.countryCode,
        country: countryName(town.countryCode),
        latitude: town.latitude,
        longitude: town.longitude,
        comment: town.comment,
      });
    }
  }
  return zones.sort((one, other) => (one.id < other.id ? -1 : 1));
}

function listEntry(zone) {
  const { id, region, name, code, countryCode, country, comment } = zone;
  return {
    id, group: region, label: name, hint: countryCode,
    search: [id, name, region, countryCode, country, comment, code].join("\n"),
  };
}

function coordinatesText({ latitude, longitude }) {
  const degrees = (value, positive, negative) => `${Math.abs(value).toFixed(4)}° ${value < 0 ? negative : positive}`;
  return `${degrees(latitude, "N", "S")}, ${degrees(longitude, "E", "W")}`;
}

class TimeZones {
  #root;
  #zones;
  #list;
  #map;
  #client;
  #stored;
  #chosen = null;
  #isSaving = false;

  /** @param {?{name: string, code: string}} stored the time zone of the device */
  constructor(root, client, zones, information, stored) {
    this.#root = root;
    this.#client = client;
    this.#stored = stored;
    this.#zones = new Map(zones.map((zone) => [zone.id, zone]));
    root.replaceChildren(fromTemplate("time-zones-template"));
    this.#showInformation(information);

    this.#map = new WorldMap(root.querySelector("[data-part=map]"));
    this.#map.setPoints(zones.map(({ id, name, latitude, longitude }) => ({ id, label: name, latitude, longitude })));
    this.#map.addEventListener("choose", (event) => this.#choose(event.detail));

    this.#list = new SearchableList(root.querySelector("#zone-search"), root.querySelector("#zone-list"));
    this.#list.addEventListener("filter", (event) => this.#showFilter(event.detail));
    this.#list.addEventListener("choose", (event) => this.#choose(event.detail));
    this.#list.setEntries(zones.map(listEntry));

    const copy = root.querySelector("[data-action=copy]");
    copy.addEventListener("click", () => this.#copy(copy));
    root.querySelector("[data-action=save]").addEventListener("click", () => this.#save());
    root.querySelector("[data-action=cancel]").addEventListener("click", () => this.#cancel());
    this.#showStored();
  }

  /** Shows the zone of this name, and that of the device when there is no name; another name shows none. */
  show(name) {
    const zone = this.#zones.get(name || this.#stored?.name) ?? null;
    if (zone === this.#chosen)
      return;
    this.#chosen = zone;
    this.#tell("");
    this.#list.choose(zone?.id);
    this.#map.choose(zone?.id);
    this.#showZone(zone);
  }

  close() {
    this.#root.replaceChildren();
  }

  #choose(id) {
    this.show(id);
    // Replaced, not added: a step back leaves the view, and does not go through the towns again.
    history.replaceState(null, "", `#${id}`);
  }

  #showInformation({ version = "", dateTime = "" }) {
    const root = this.#root;
    showField(root, "version", version || "of unknown version");
    showField(root, "date", dateTime.replace("T", " "));
    root.querySelector("time").dateTime = dateTime;
    showPart(root, "date", dateTime !== "");
  }

  #showFilter(ids) {
    this.#map.filter(ids);
    const total = this.#zones.size;
    const count = ids.size === total ? `${total} towns` : `${ids.size} of ${total} towns`;
    this.#root.querySelector(".zone-count").textContent = ids.size === 0 && total > 0 ? "No town matches." : count;
  }

  #showStored() {
    const stored = this.#stored;
    showField(this.#root, "stored-name", stored ? stored.name || stored.code : "not set");
    this.#showChange();
  }

  // What is stored already need not be saved.
  #showChange() {
    const isChange = this.#chosen !== null && this.#chosen.id !== this.#stored?.name;
    showPart(this.#root, "change", isChange);
    showPart(this.#root, "is-stored", this.#chosen !== null && !isChange);
  }

  #tell(text) {
    const message = this.#root.querySelector(".zone-details .message");
    message.textContent = text;
    message.hidden = text === "";
  }

  async #save() {
    const zone = this.#chosen;
    if (this.#isSaving || zone === null)
      return;
    this.#isSaving = true;
    this.#tell("");
    try {
      this.#stored = (await this.#client.put(DEVICE_PATH, { timeZone: zone.id })).timeZone;
      this.#showStored();
      showField(this.#root, "announcement", `${zone.name} is the device’s time zone now.`);
      this.#focusName();
    } catch (error) {
      this.#tell(error.kind === "refused" ? error.message : "");
    } finally {
      this.#isSaving = false;
    }
  }

  #cancel() {
    this.show("");
    history.replaceState(null, "", "#time-zones");
    this.#focusName();
  }

  // The button that had the focus is hidden now.
  #focusName() {
    this.#root.querySelector("#zone-name")?.focus();
  }

  #showZone(zone) {
    const root = this.#root;
    this.#showChange();
    showPart(root, "chosen", zone !== null);
    showPart(root, "none", zone === null);
    root.querySelector("#zone-name").textContent = zone ? zone.name : "No town chosen";
    if (zone === null)
      return;
    showField(root, "code", zone.code);
    showField(root, "zone", zone.id);
    showField(root, "region", zone.region);
    showField(root, "country", zone.country ? `${zone.country} (${zone.countryCode})` : zone.countryCode);
    showField(root, "coordinates", coordinatesText(zone));
    showField(root, "comment", zone.comment);
    showPart(root, "comment", zone.comment !== "");
    showField(root, "announcement", `${zone.name}: ${zone.code}`);
  }

  async #copy(button) {
    const code = this.#root.querySelector("code[data-field=code]");
    const copied = await copyText(code);
    button.textContent = copied ? "Copied" : "Selected";
    setTimeout(() => { button.textContent = "Copy"; }, 2000);
    showField(this.#root, "announcement", copied ? "Copied" : "Selected; copy it with the keyboard");
  }
}
