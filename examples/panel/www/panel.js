"use strict";

// Makes the upload form a drop zone with a progress bar, and changes files
// without leaving the page. Without this script the forms do the same.

const JSON_PLEASE = { Accept: "application/json" };

function readable(bytes) {
  if (bytes === 1) return "1 byte";
  if (bytes < 1024) return `${bytes} bytes`;
  const units = ["KB", "MB", "GB", "TB"];
  let size = bytes / 1024;
  while (size >= 1024 && units.length > 1) {
    size /= 1024;
    units.shift();
  }
  return `${size.toFixed(1)} ${units[0]}`;
}

function setUpUpload(form) {
  const input = form.querySelector("input[type=file]");
  const limit = Number(form.querySelector("#limit").value);
  const send = form.querySelector("#send");
  send.insertAdjacentHTML("beforebegin", `<ul id="chosen"></ul>
<p id="message" role="status"></p>
<div id="sending" hidden><progress aria-label="Progress of the upload"></progress>
<span id="sent"></span></div>`);
  send.insertAdjacentHTML("afterend", '<button id="cancel" type="button" hidden>Cancel</button>');
  const list = form.querySelector("#chosen");
  const message = form.querySelector("#message");
  const sending = form.querySelector("#sending");
  const progress = form.querySelector("progress");
  const sent = form.querySelector("#sent");
  const cancel = form.querySelector("#cancel");
  let request = null;

  function say(text, isProblem = false) {
    message.textContent = text;
    message.classList.toggle("problem", isProblem);
  }

  function totalSize() {
    return [...input.files].reduce((sum, file) => sum + file.size, 0);
  }

  // The limit includes the headers of the parts, which are small.
  function isTooLarge() {
    return totalSize() + 1024 * (input.files.length + 1) > limit;
  }

  function showChosen() {
    list.replaceChildren(...[...input.files].map((file) => {
      const item = document.createElement("li");
      item.textContent = `${file.name}, ${readable(file.size)}`;
      return item;
    }));
    send.disabled = input.files.length === 0 || isTooLarge();
    if (isTooLarge()) {
      say(`Together these are ${readable(totalSize())}, more than the limit of ` +
          `${readable(limit)}. Please choose fewer.`, true);
    } else {
      say(input.files.length === 0 ? "" : `Together: ${readable(totalSize())}`);
    }
  }

  function isFolder(item) {
    const entry = item.webkitGetAsEntry && item.webkitGetAsEntry();
    return Boolean(entry && entry.isDirectory);
  }

  // Adds the dropped files to those chosen before.
  function add(dropped) {
    const all = new DataTransfer();
    for (const file of input.files) all.items.add(file);
    const items = [...dropped.items].filter((item) => item.kind === "file");
    const files = items.filter((item) => !isFolder(item));
    for (const item of files) all.items.add(item.getAsFile());
    input.files = all.files;
    showChosen();
    if (files.length < items.length) say("Folders cannot be uploaded, only files.", true);
  }

  function setSending(isSending) {
    sending.hidden = !isSending;
    cancel.hidden = !isSending;
    send.hidden = isSending;
    input.disabled = isSending;
  }

  function finish(text, isProblem) {
    request = null;
    setSending(false);
    say(text, isProblem);
    send.focus();
  }

  function showAnswer() {
    const answer = request.response;
    if (answer && answer.problem === "") {
      location.reload();
    } else {
      finish(answer ? answer.problem
                    : `The answer cannot be read (${request.status}). Please try again.`, true);
    }
  }

  function showProgress(event) {
    if (!event.lengthComputable) return;
    progress.max = event.total;
    progress.value = event.loaded;
    sent.textContent = `${readable(event.loaded)} of ${readable(event.total)}`;
  }

  function start(event) {
    event.preventDefault();
    if (request) return;
    const data = new FormData(form);
    request = new XMLHttpRequest();
    request.open("POST", form.action);
    request.responseType = "json";
    for (const name in JSON_PLEASE) request.setRequestHeader(name, JSON_PLEASE[name]);
    request.upload.onprogress = showProgress;
    request.upload.onload = () => say("Sent. Waiting for the answer.");
    request.onload = showAnswer;
    request.onerror = () => finish("The upload did not get through: the connection broke, " +
      "or a file can no longer be read. Please try again.", true);
    request.onabort = () => finish("Cancelled. Nothing was kept.", false);
    request.send(data);
    progress.removeAttribute("value");
    sent.textContent = "";
    say("Sending");
    setSending(true);
    cancel.focus();
  }

  // Handled on the whole page: outside of a drop zone, a browser would open the file.
  function drag(event) {
    event.preventDefault();
    form.classList.toggle("over", event.type === "dragover" && !request);
  }

  function drop(event) {
    drag(event);
    if (!request) add(event.dataTransfer);
  }

  input.addEventListener("change", showChosen);
  form.addEventListener("submit", start);
  cancel.addEventListener("click", () => request.abort());
  document.addEventListener("dragover", drag);
  document.addEventListener("dragleave", drag);
  document.addEventListener("drop", drop);
  showChosen();
}

function setUpFiles(form) {
  form.insertAdjacentHTML("beforeend", '<p id="changed" role="alert"></p>');
  const message = form.querySelector("#changed");

  function say(text) {
    message.textContent = text;
    message.classList.toggle("problem", text !== "");
  }

  // Some of the files may be gone even if others could not be deleted.
  async function removeGone() {
    const answer = await fetch(location, { headers: JSON_PLEASE });
    const names = new Set((await answer.json()).entries.map((entry) => entry.name));
    for (const box of form.querySelectorAll("input[type=checkbox]")) {
      if (!names.has(box.value)) box.closest("tr").remove();
    }
  }

  async function send(event) {
    event.preventDefault();
    const data = new URLSearchParams(new FormData(form));
    data.append("action", event.submitter.value);
    try {
      // form.action is not the URL here, but the buttons of that name.
      const answer = await fetch(form.getAttribute("action"),
                                 { method: "POST", body: data, headers: JSON_PLEASE });
      const problem = (await answer.json()).problem;
      if (problem === "") return location.reload();
      say(problem);
      await removeGone();
    } catch (error) {
      say("The answer cannot be read. Please try again.");
    }
  }

  form.addEventListener("submit", send);
}

const uploadForm = document.querySelector("#upload");
if (uploadForm) setUpUpload(uploadForm);
const filesForm = document.querySelector("#files");
if (filesForm) setUpFiles(filesForm);
