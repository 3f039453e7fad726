/**
 * Copies the text of an element. A browser gives its clipboard only to pages that come over TLS or from the same
 * machine; elsewhere the text is selected and copied the old way.
 * @return whether it was copied; if not, the text is selected at least
 */
export async function copyText(node) {
  try {
    await navigator.clipboard.writeText(node.textContent);
    return true;
  } catch {
    getSelection().selectAllChildren(node);
    return document.execCommand("copy");
  }
}

const RESULT_MILLISECONDS = 2000;

/** Does the same, and shows on the button for a moment whether it was copied. */
export async function copyTextAndShow(node, button) {
  const isCopied = await copyText(node);
  button.textContent = isCopied ? "Copied" : "Not copied";
  setTimeout(() => { button.textContent = "Copy"; }, RESULT_MILLISECONDS);
  return isCopied;
}
