// SPDX-License-Identifier: ISC
// What the router said, in the shape that the page works with. Nothing that comes over the wire is
// trusted to have a shape: what is missing, or of another type, becomes empty. Pure.

export const isTable = (value) => typeof value === "object" && value !== null && !Array.isArray(value);
export const table = (value) => (isTable(value) ? value : {});
export const field = (from, name) => (isTable(from) && typeof from[name] === "string" ? from[name] : "");
export const number = (from, name, otherwise = 0) => (Number.isFinite(from[name]) ? from[name] : otherwise);

// Controls, marks that change the writing direction, and what is no character become U+FFFD.
const UNSHOWABLE = /[\0-\x08\x0b-\x1f\x7f-\x9f\u061c\u200b\u200e\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb\u{e0000}-\u{e007f}]|\p{Cs}/gu;

const shown = (value) => value.replace(/\r\n/g, "\n").replace(UNSHOWABLE, "\ufffd");
export const oneLine = (value) => (typeof value === "string" ? shown(value).replace(/\s+/g, " ").trim() : "");
const line = (from, name) => oneLine(field(from, name));

const KINDS = ["running", "lost", "refused", "installing", "nothing", "failed", "busy"];

// Of `status`. `kind`: none, running, lost, refused, or what the daemon's answer came to; `id` names
// the job; `ago` is the seconds since it ended.
export function readStatus(data) {
	const update = table(data.update);
	const answer = table(update.answer);
	const boot = field(data, "boot");
	const kind = field(update, field(update, "job") === "answered" ? "result" : "job");
	const started = number(update, "started", null);
	const now = number(data, "now");
	return {
		boot,
		kind: KINDS.includes(kind) ? kind : "none",
		id: `${boot} ${started ?? "-"}`,
		ago: Math.max(0, now - number(update, "ended", now)),
		code: line(answer, "error_code"),
		words: line(answer, "error_message"),
		number: number(update, "status", null), // of a refusal by the bus
		answered: { version: line(answer, "version"), build: line(answer, "buildtime") },
		daemon: isTable(data.state) || data.silent === true,
		state: field(data.state, "state"),
		progress: readProgress(table(table(data.state).progress)),
		...readGuard(table(data.guard), started),
	};
}

function readProgress(progress) {
	const total = number(progress, "total");
	return total > 0 ? { total, got: number(progress, "now") } : null;
}

// Of the refusals only that of the last job counts.
function readGuard({ refused, trial, outcome }, started) {
	const checks = Object.entries(table(trial?.checks)).map(([name, ok]) => ({ name: oneLine(name), ok: ok === true }));
	return {
		refused: isTable(refused) && number(refused, "time", Infinity) >= started ? line(refused, "reason") || "?" : "",
		trial: isTable(trial) ? { left: number(trial, "left"), checks } : null,
		takenBack: field(outcome, "result") === "taken-back" ? { build: line(outcome, "build"), check: line(outcome, "check") } : null,
	};
}

// Of `system board`; null when it is none: it is kept until the next restart.
export function readBoard({ data }, boot) {
	const release = table(data).release;
	return isTable(release) ? {
		boot,
		name: line(data, "hostname"),
		model: line(data, "model"),
		version: line(release, "revision") || line(release, "version"),
		build: line(release, "builddate"),
	} : null;
}

// Of `check`; null when it is none.
export function readOffer(answer) {
	if (field(answer, "error_code") !== "0")
		return null;
	return {
		version: line(answer, "version"),
		build: line(answer, "buildtime"),
		due: field(answer, "need_update") === "1",
		notes: shown(field(answer, "releasenotes")).trim(),
	};
}

// What is wrong, of `doctor`.
export function readFindings({ data }) {
	const findings = Array.isArray(table(data).findings) ? data.findings : [];
	return findings.filter((one) => table(one).ok === false).map((one) => ({ found: line(one, "found"), todo: line(one, "do") }));
}
