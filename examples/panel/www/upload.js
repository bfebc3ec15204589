"use strict";

// Makes the form a drop zone with a progress bar. Without this script it is an
// ordinary form that does the same.

const form = document.querySelector("#upload");
const input = form.querySelector("input[type=file]");
const list = form.querySelector("#chosen");
const message = form.querySelector("#message");
const progress = form.querySelector("progress");
const send = form.querySelector("#send");
const cancel = form.querySelector("#cancel");
const limit = Number(form.dataset.limit);

let chosen = [];
let request = null;

function readable(bytes) {
  if (bytes < 1024) return `${bytes} bytes`;
  const units = ["KB", "MB", "GB", "TB"];
  let size = bytes / 1024;
  while (size >= 1024 && units.length > 1) {
    size /= 1024;
    units.shift();
  }
  return `${size.toFixed(1)} ${units[0]}`;
}

// Two files of one name would be one upload.
function uniqueName(name, taken) {
  const dot = name.lastIndexOf(".");
  const [stem, suffix] = dot > 0 ? [name.slice(0, dot), name.slice(dot)] : [name, ""];
  let unique = name;
  for (let number = 2; taken.has(unique); ++number) unique = `${stem} (${number})${suffix}`;
  taken.add(unique);
  return unique;
}

function formData() {
  const data = new FormData();
  data.append("token", form.elements.token.value);
  const taken = new Set();
  for (const file of chosen) data.append("files", file, uniqueName(file.name, taken));
  return data;
}

function say(text, isProblem = false) {
  message.textContent = text;
  message.classList.toggle("problem", isProblem);
}

function totalSize() {
  return chosen.reduce((sum, file) => sum + file.size, 0);
}

// The parts' headers count too; they are small.
function isTooLarge() {
  return totalSize() + 1024 * (chosen.length + 1) > limit;
}

function choose(files) {
  chosen = [...files];
  list.replaceChildren(...chosen.map((file) => {
    const item = document.createElement("li");
    item.textContent = `${file.name}, ${readable(file.size)}`;
    return item;
  }));
  send.disabled = chosen.length === 0 || isTooLarge();
  if (isTooLarge()) {
    say(`Together these are ${readable(totalSize())}, more than the limit of ` +
        `${readable(limit)}. Please choose fewer.`, true);
  } else {
    say(chosen.length === 0 ? "" : `Together: ${readable(totalSize())}`);
  }
}

function finish(text) {
  request = null;
  progress.hidden = true;
  cancel.hidden = true;
  send.hidden = false;
  say(text, true);
}

function showAnswer() {
  const main = request.response && request.response.querySelector("main");
  if (!main) return finish("The answer cannot be read. Please try again.");
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
  say(event.loaded < event.total
    ? `${readable(event.loaded)} of ${readable(event.total)}`
    : "Sent. Waiting for the answer.");
}

function start(event) {
  event.preventDefault();
  request = new XMLHttpRequest();
  request.open("POST", form.action);
  request.responseType = "document";
  request.upload.onprogress = showProgress;
  request.onload = showAnswer;
  request.onerror = () => finish("The upload did not get through. Please try again.");
  request.onabort = () => finish("Cancelled. Nothing was kept.");
  progress.removeAttribute("value");
  progress.hidden = false;
  cancel.hidden = false;
  send.hidden = true;
  say("Sending");
  request.send(formData());
  cancel.focus();
}

function mark(event) {
  event.preventDefault();
  form.classList.toggle("over", event.type === "dragover");
}

input.addEventListener("change", () => choose(input.files));
form.addEventListener("submit", start);
cancel.addEventListener("click", () => request && request.abort());
form.addEventListener("dragover", mark);
form.addEventListener("dragleave", mark);
form.addEventListener("drop", (event) => {
  mark(event);
  if (request) return;
  input.files = event.dataTransfer.files;
  choose(input.files);
});
choose(input.files);
