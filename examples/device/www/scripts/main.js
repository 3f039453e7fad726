// The frame around the views: which one is shown, the session, and the banner for a device that cannot be reached.

import { DeviceClient } from "./client.js";
import { ConnectionWatch } from "./connection-watch.js";
import { deviceView } from "./device-view.js";
import { element } from "./dom.js";
import { FirmwareUpload } from "./firmware-upload.js";
import { firmwareView } from "./firmware-view.js";
import { ioView } from "./io-view.js";
import { LiveEvents } from "./live-events.js";
import { showLogin } from "./login-view.js";
import { packagesView } from "./packages-view.js";
import { pingView } from "./ping-view.js";
import { proxyView } from "./proxy-view.js";
import { timeZonesView } from "./time-zones-view.js";
import { timetableView } from "./timetable-view.js";
import { tracerouteView } from "./traceroute-view.js";

const upload = new FirmwareUpload();

/**
 * The views, in the order of the navigation. A view has
 * - name: what its address begins with; title: what the navigation calls it;
 * - open(container, client, loading): fills the container, with a heading (h1) that can take the focus; the result has
 *   the operations show(subject), which shows what the address names behind the view's name, and close(). A long
 *   opening reports its progress with loading.report(text), and ends when the AbortSignal loading.stop does. A view that
 *   follows what happens on the device starts and stops loading.live, which are LiveEvents.
 */
const VIEWS = [deviceView, timeZonesView, timetableView, ioView, proxyView, pingView, tracerouteView, firmwareView(upload),
  packagesView];

const DEVICE_TITLE = document.title;

const SIGNED_IN_KEY = "nbase-demo-signed-in";

const content = document.getElementById("content");
const navigation = document.getElementById("views");
const logoutButton = document.getElementById("logout");
const banner = document.getElementById("banner");
const bannerText = document.getElementById("banner-text");

const client = new DeviceClient();
const watch = new ConnectionWatch(client, "/api/timezones?section=information");
const live = new LiveEvents(client);

let openView = null;
let openName = "";
let openings = 0;
let isOpening = false;
let stopLoading = new AbortController();

// Kept over a reload, to distinguish an ended session from none. Browsers may forbid it.
const signedIn = {
  get value() {
    try {
      return localStorage.getItem(SIGNED_IN_KEY) !== null;
    } catch {
      return false;
    }
  },
  set value(value) {
    try {
      if (value)
        localStorage.setItem(SIGNED_IN_KEY, "yes");
      else
        localStorage.removeItem(SIGNED_IN_KEY);
    } catch {
      // Then a reload shows the login form without the reason.
    }
  },
};

/** The view that the address names and the rest of the address. Without a view's name the address is a time zone. */
function addressedView() {
  let address = location.hash.slice(1);
  try {
    address = decodeURIComponent(address);
  } catch {
    // Not encoded, then.
  }
  const [name, ...rest] = address.split("/");
  const view = VIEWS.find((candidate) => candidate.name === name);
  if (view)
    return { view, subject: rest.join("/") };
  return address === "" ? { view: VIEWS[0], subject: "" } : { view: timeZonesView, subject: address };
}

function showFrame(isSignedIn) {
  navigation.hidden = !isSignedIn;
  logoutButton.hidden = !isSignedIn;
  const { view } = addressedView();
  navigation.replaceChildren(...VIEWS.map((each) => element(
    "a", { href: `#${each.name}`, ...(each === view && { "aria-current": "page" }) }, each.title)));
  // On a phone the views may need more room than there is.
  navigation.querySelector("[aria-current]").scrollIntoView({ block: "nearest", inline: "nearest" });
}

function closeView() {
  openings += 1;
  isOpening = false;
  stopLoading.abort();
  openView?.close();
  openView = null;
  openName = "";
  content.replaceChildren();
}

/** Names the view in the title, and puts the focus on its heading: a screen reader reads it. */
function announce(title, { focus }) {
  document.title = `${title} – ${DEVICE_TITLE}`;
  if (focus)
    content.querySelector("h1")?.focus();
}

async function showView({ focus = false } = {}) {
  const { view, subject } = addressedView();
  if (openView && openName === view.name) {
    openView.show(subject);
    return;
  }
  closeView();
  if (!navigation.hidden)
    showFrame(true);
  isOpening = true;
  const opening = openings;
  stopLoading = new AbortController();
  const progress = element("p", { class: "loading-progress" });
  content.replaceChildren(
    element("div", { class: "notice" }, element("p", { role: "status" }, "Loading …"), progress));
  try {
    const container = element("div", { class: "view" });
    const report = (text) => { progress.textContent = text; };
    const opened = await view.open(container, client, { stop: stopLoading.signal, report, live });
    if (opening !== openings) {
      opened.close();
      return;
    }
    signedIn.value = true;
    openView = opened;
    openName = view.name;
    showFrame(true);
    content.replaceChildren(container);
    openView.show(subject);
    announce(view.title, { focus });
    watch.start();
  } catch (error) {
    if (opening !== openings || error.kind === "session-ended")
      return;
    content.replaceChildren(element("div", { class: "notice" }, element("h1", { tabindex: "-1" }, view.title),
      element("p", { role: "alert" }, `${view.title} cannot be shown. ${error.message}`)));
    announce(view.title, { focus });
  } finally {
    if (opening === openings)
      isOpening = false;
  }
}

function isLoggingIn() {
  return content.querySelector("form.login") !== null;
}

function askToLogIn(message) {
  closeView();
  showFrame(false);
  showLogin(content, client, message, () => showView({ focus: true }));
  announce("Sign in", { focus: false });
}

async function logOut() {
  if (upload.isActive && !window.confirm(`Cancel the upload of ${upload.name} and sign out?`))
    return;
  upload.cancel();
  try {
    await client.logout();
  } catch (error) {
    if (error.kind === "unreachable")
      return;
  }
  signedIn.value = false;
  watch.stop();
  askToLogIn("You have signed out.");
}

client.addEventListener("session-ended", () => {
  const message = signedIn.value ? "Your session has ended. Please sign in again." : "";
  signedIn.value = false;
  watch.stop();
  // A form that is being filled in stays as it is.
  if (!isLoggingIn())
    askToLogIn(message);
});

client.addEventListener("unreachable", (event) => {
  bannerText.textContent = event.detail.message;
  banner.hidden = false;
});

client.addEventListener("reachable", () => {
  banner.hidden = true;
  // What could not be loaded before can be now.
  if (!openView && !isOpening && !isLoggingIn())
    showView();
});

live.addEventListener("live", () => { watch.isResting = true; });
live.addEventListener("lost", () => { watch.isResting = false; });

document.getElementById("banner-retry").addEventListener("click", () => watch.ask());
logoutButton.addEventListener("click", logOut);
window.addEventListener("hashchange", () => {
  if (!isLoggingIn())
    showView({ focus: true });
});
window.addEventListener("storage", (event) => {
  if (event.key === SIGNED_IN_KEY && openView)
    watch.ask();
});

showView();
