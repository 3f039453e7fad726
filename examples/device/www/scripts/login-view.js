import { fromTemplate } from "./dom.js";
import { FormMessage } from "./form-messages.js";

/**
 * The login form.
 * @param {HTMLElement} container what it is shown in
 * @param {DeviceClient} client
 * @param {string} message why the login is needed (again), or empty
 * @param {() => void} onLogin called when there is a session
 */
export function showLogin(container, client, message, onLogin) {
  container.replaceChildren(fromTemplate("login-template"));
  const form = container.querySelector("form");
  const output = new FormMessage(form, form.querySelector(".message"));
  const button = form.querySelector("button");

  async function login() {
    const { user, password } = form.elements;
    try {
      if (await client.login(user.value, password.value)) {
        onLogin();
        return;
      }
      output.show("The user name or the password is wrong.", [user, password]);
      password.value = "";
      user.focus();
    } catch (error) {
      output.show(error.kind === "unreachable" ? "" : error.message);
    }
  }

  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    if (button.getAttribute("aria-disabled") === "true")
      return;
    // A button that is disabled would lose the focus. After wrong passwords the device takes seconds to answer.
    button.setAttribute("aria-disabled", "true");
    button.textContent = "Signing in …";
    await login();
    button.textContent = "Sign in";
    button.removeAttribute("aria-disabled");
  });

  output.show(message);
  form.elements.user.focus();
}
