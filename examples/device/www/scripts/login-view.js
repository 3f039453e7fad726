import { fromTemplate } from "./dom.js";

/**
 * The login form.
 * @param {HTMLElement} container what it is shown in
 * @param {DeviceClient} client
 * @param {string} message why somebody has to sign in (again), or empty
 * @param {() => void} onLogin called when there is a session
 */
export function showLogin(container, client, message, onLogin) {
  container.replaceChildren(fromTemplate("login-template"));
  const form = container.querySelector("form");
  const output = form.querySelector(".message");
  const button = form.querySelector("button");

  function tell(text) {
    output.textContent = text;
    output.hidden = text === "";
  }

  async function login() {
    const { user, password } = form.elements;
    try {
      if (await client.login(user.value, password.value)) {
        onLogin();
        return;
      }
      tell("The user name or the password is wrong.");
      password.value = "";
      user.focus();
    } catch (error) {
      tell(error.kind === "unreachable" ? "" : error.message);
    }
  }

  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    if (button.disabled)
      return;
    button.disabled = true;
    await login();
    button.disabled = false;
  });

  tell(message);
  form.elements.user.focus();
}
