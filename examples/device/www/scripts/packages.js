// The open-source packages of the device. It has one document with all of them and all their licence texts, which may be
// far larger than a browser should hold: the list is taken from it while it comes in, and of the texts only so many are
// kept. One that was not is looked for in the document again.

const PATH = "/api/packages";
const KEPT_CHARACTERS = 32e6; // what a usual firmware has is less
const PROGRESS_MILLISECONDS = 500;

export class PackageList {
  /** Objects with name, version, licenses, files, sourceSite and sourceArchive, all texts. */
  entries = [];

  #client;
  #texts = new Map(); // by package, the licence files with their texts

  constructor(client) {
    this.#client = client;
  }

  /** Loads the list. The two arguments are those of a view's opening. */
  async load(stop, report) {
    let size = 0;
    let reported = performance.now();
    for await (const [name, description] of this.#client.members(PATH, stop)) {
      const { licenses, licenseFiles, ...texts } = description;
      const files = Object.keys(licenseFiles);
      this.entries.push({ name, ...texts, licenses: licenses.join(", "), files });
      size += Object.values(licenseFiles).reduce((sum, text) => sum + text.length, 0);
      if (size <= KEPT_CHARACTERS)
        this.#texts.set(name, licenseFiles);
      if (performance.now() - reported > PROGRESS_MILLISECONDS) {
        reported = performance.now();
        report(`${this.entries.length} packages, ${Math.round(size / 1e6)} MB of licence texts`);
      }
    }
  }

  /** The text of a licence file; an empty one when the device does not have it. Throws a DeviceError. */
  async licenseText(packageName, file, stop) {
    const kept = this.#texts.get(packageName);
    if (kept)
      return kept[file];
    for await (const [name, { licenseFiles }] of this.#client.members(PATH, stop)) {
      if (name === packageName)
        return licenseFiles[file] ?? "";
    }
    return "";
  }
}
