"use strict";

// Makes the form a drop zone with a progress bar. Without this script it is an
// ordinary form that does the same.

const form = document.querySelector("#upload");
const input = form.querySelector("input[type=file]");
const list = form.querySelector("#chosen");
const message = form.querySelector("#message");
const sending = form.querySelector("#sending");
const progress = form.querySelector("progress");
const sent = form.querySelector("#sent");
const send = form.querySelector("#send");
const cancel = form.querySelector("#cancel");
const limit = Number(form.dataset.limit);

let request = null;

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

// Two files of one name would be one upload, and a semicolon would end a name.
function nameToSend(name, taken) {
  const whole = name.replaceAll(";", "_");
  const dot = whole.lastIndexOf(".");
  const [stem, suffix] = dot > 0 ? [whole.slice(0, dot), whole.slice(dot)] : [whole, ""];
  let unique = whole;
  for (let number = 2; taken.has(unique); ++number) unique = `${stem} (${number})${suffix}`;
  taken.add(unique);
  return unique;
}

function formData() {
  const data = new FormData();
  data.append("token", form.elements.token.value);
  // For the panel to see that nothing was lost on the way.
  data.append("announced", `${input.files.length} ${totalSize()}`);
  const taken = new Set();
  for (const file of input.files) data.append("files", file, nameToSend(file.name, taken));
  return data;
}

function say(text, isProblem = false) {
  message.textContent = text;
  message.classList.toggle("problem", isProblem);
}

function totalSize() {
  return [...input.files].reduce((sum, file) => sum + file.size, 0);
}

// The parts' headers count too; they are small.
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

// To what has been chosen before.
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

// The panel's answers are pages, when it refuses an upload too.
function showAnswer() {
  const main = request.response && request.response.querySelector("main");
  if (!main) {
    finish(`The answer cannot be read (${request.status}). Please try again.`, true);
    return;
  }
  document.title = request.response.title;
  document.querySelector("main").replaceWith(main);
  const heading = main.querySelector("h1");
  heading.tabIndex = -1;
  heading.focus();
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
  request = new XMLHttpRequest();
  request.open("POST", form.action);
  request.responseType = "document";
  request.upload.onprogress = showProgress;
  request.upload.onload = () => say("Sent. Waiting for the answer.");
  request.onload = showAnswer;
  request.onerror = () => finish("The upload did not get through: the connection broke, " +
    "or a file can no longer be read. Please try again.", true);
  request.onabort = () => finish("Cancelled. Nothing was kept.", false);
  request.send(formData());
  progress.removeAttribute("value");
  sent.textContent = "";
  say("Sending");
  setSending(true);
  cancel.focus();
}

// Anywhere on the page: beside a drop zone, a browser would open the file.
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
