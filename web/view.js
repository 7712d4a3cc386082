// SPDX-License-Identifier: ISC
// Puts a picture (see sentences.js) into the document, as text only, and only what has changed:
// screen readers speak every change.
import { pieces, plain, text } from "./texts.js";

export const byId = (id) => document.getElementById(id);

function make(name, ...children) {
	const element = document.createElement(name);
	element.append(...children);
	return element;
}

// Names and numbers keep a writing direction of their own.
function fill(element, part) {
	const all = typeof part === "string" ? ["", part] : pieces(part);
	if (element.textContent !== all.join(""))
		element.replaceChildren(...all.map((piece, index) => (index % 2 ? make("bdi", piece) : piece)));
}

function fillList(element, sentences) {
	const items = sentences.map((sentence) => make("li", plain(sentence)));
	if (element.textContent !== items.map((item) => item.textContent).join(""))
		element.replaceChildren(...items);
}

export function show({ parts, title, tone, sign, step, progress, enabled, signingIn, question }) {
	document.title = plain(title);
	for (const [id, part] of Object.entries(parts)) {
		const element = byId(id);
		element.hidden = !part;
		if (Array.isArray(part))
			fillList(element, part);
		else if (part?.key || (part && typeof part === "string"))
			fill(element, part);
	}
	byId("job-title").dataset.tone = tone;
	byId("verdict").dataset.sign = sign;
	for (const id of ["update", "check", "anyway", "file-button"])
		byId(id).disabled = !enabled;
	byId("sign-in-button").disabled = signingIn;
	[...byId("steps").children].forEach((item, index) => {
		item.className = index < step ? "over" : "";
		item.ariaCurrent = index === step ? "step" : null;
	});
	if (progress === null)
		byId("bar").removeAttribute("value"); // moves, without saying how far
	else
		byId("bar").value = progress;
	if (byId("question").open !== question)
		byId("question")[question ? "showModal" : "close"]();
}

// What stands in the page itself is English.
export function translate(language) {
	document.documentElement.lang = language;
	for (const element of document.querySelectorAll("[data-text]"))
		element.textContent = text(element.dataset.text) ?? element.textContent;
	byId("steps").append(...text("steps").split("|").map((step) => make("li", step)));
}

export function focus(what, user) {
	byId("user").value = user;
	byId("password").value = "";
	byId(what === "title" && !byId("job").hidden ? "job-title" : what === "password" ? what : "verdict").focus();
}
