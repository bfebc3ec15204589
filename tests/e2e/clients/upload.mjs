// Usage: upload.mjs URL TEXT FILE...
// Sends a form by fetch: the text as "note", the files as "upload0" and so on.
import { readFileSync } from "node:fs";
import { basename } from "node:path";

const [url, text, ...files] = process.argv.slice(2);
const form = new FormData();
form.append("note", text);
files.forEach((file, number) => {
  form.append(`upload${number}`, new Blob([readFileSync(file)]), basename(file));
});
const answer = await fetch(url, { method: "POST", body: form });
process.stdout.write(await answer.text());
process.exitCode = answer.ok ? 0 : 1;
