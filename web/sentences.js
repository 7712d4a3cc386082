// SPDX-License-Identifier: ISC
// What is to be seen of a model: for each element, by its id, its sentence or text, or a list of
// them. true shows an element as it is; what is false or empty is hidden. Pure.
import { installingFor, isEnding, isMoving, mayAct, say, stage } from "./job.js";

const STEPS = { asking: 0, loading: 0, verifying: 1, installing: 2, notRestarted: 2, refused: 2, restarting: 3, starting: 3, returned: 3, trial: 4, done: 5 };
const RESTARTS = ["installing", "restarting", "starting"];
const AWAY_LIMIT = 600000; // milliseconds until there is a hint

export function picture(model, now) {
	const at = stage(model, now);
	const free = at === "idle" || (isEnding(at) && at !== "notRestarted");
	const { facts, offer, busy, user, question } = model;
	const part = at === "loading" && facts.progress ? facts.progress.got / facts.progress.total : null;
	return {
		parts: {
			...around(model, at), ...job(model, at, now, part), versions: Boolean(model.board) && free,
			...(model.board && versions(model)),
		},
		title: at === "idle" || at === "opening" ? say("title") : say("tab", { what: say(part === null ? at : "percent", { percent: part }) }),
		stage: at,
		step: STEPS[at],
		tone: at === "done" || at === "changed" ? "good" : isEnding(at) && at !== "nothing" ? "bad" : "",
		sign: offer ? (offer.due ? "new" : "good") : "",
		progress: part,
		enabled: mayAct(model, now),
		signingIn: busy === "signIn",
		question: Boolean(question),
		user,
	};
}

function around({ session, from, board, links, why, signInFault, busy, notStarted, link, seen, watch }, at) {
	const waiting = at === "restarting" || at === "starting";
	return {
		router: board?.name,
		who: Boolean(session),
		account: session?.user,
		"sign-out": say(from ? "signOutLuci" : "signOut"),
		luci: from === "luci",
		home: links.home && !from,
		"sign-in": !session && !waiting,
		"sign-in-why": why && say(why),
		"sign-in-fault": signInFault,
		"sign-in-button": say(busy === "signIn" ? "signingIn" : "signIn"),
		connection: session && link && !waiting ? say(watch ? "uncertain" : "fault", { fault: say(link.fault, link), at: seen }) : notStarted,
	};
}

// --- The update

function job(model, at, now, part) {
	if (at === "idle" || at === "signIn")
		return { job: false };
	const { board, facts, watch, took } = model;
	const { takenBack, trial } = facts ?? {};
	const values = {
		...facts, ...board, offered: watch?.offer.version, reason: facts?.refused, left: trial?.left, tried: takenBack?.build,
		check: check(takenBack?.check), minutes: at === "notRestarted" && Math.floor(installingFor(model, now) / 60000),
	};
	const usual = took.length ? { from: Math.floor(Math.min(...took)), to: Math.floor(Math.max(...took)) + 1 } : { from: 3, to: 5 };
	return {
		job: true,
		"job-title": say(at),
		steps: at in STEPS,
		bar: RESTARTS.includes(at) || STEPS[at] < 2,
		figures: part === null ? RESTARTS.includes(at) && say("elapsed", { ...usual, time: now - watch.since }) : say("figures", { ...facts.progress, percent: part }),
		"job-text": say(textKey(facts, at, part), values),
		"job-detail": at === "failed" && facts.words && facts.words !== "No Error" && say("daemonSays", { message: facts.words }),
		"job-list": at === "trial" && trial.checks.map(({ name, ok }) => say(ok ? "checkOk" : "checkWaits", { check: check(name) })),
		"job-when": ["lost", "failed", "nothing"].includes(at) && facts.ago >= 60 && say("when", facts),
		"job-hint": at === "restarting" ? now - watch.since >= AWAY_LIMIT && say("longAway") : STEPS[at] < 2 && facts.kind !== "running" && say("foreign"),
		"job-stays": isMoving(at) && STEPS[at] < 4 && at !== "returned",
		"close-job": isEnding(at),
	};
}

function textKey(facts, at, part) {
	if (at !== "failed")
		return at === "loading" && part === null ? "sizeUnknown" : `${at}Text`;
	return facts.kind === "refused" ? "error" : ["1", "2", "3", "5", "6"].includes(facts.code) ? `failed${facts.code}` : "failedOther";
}

// The guard's checks, by their names.
const CHECKS = { "10-daemon": "check10", "20-network": "check20", "30-server": "check30" };
const check = (name) => (Object.hasOwn(CHECKS, name) ? say(CHECKS[name]) : name);

// --- The versions

function versions({ board, offer, checked, mayUpdate, plugin, findings, file, question, busy, facts, links }) {
	const act = mayUpdate && plugin;
	return {
		verdict: !plugin ? say("noPlugin") : checked && !busy ? verdict(checked, offer, board) : say(busy || facts.daemon ? "checking" : "noDaemon"),
		"checked-at": checked && say("checkedAt", checked),
		findings: findings?.map((finding) => say("finding", finding)),
		"here-version": board.version || "?",
		"here-build": board.build || "?",
		"here-model": board.model || "?",
		"offer-version": offer ? offer.version || "?" : "–",
		"offer-build": offer ? offer.build || "?" : "–",
		"notes-part": Boolean(offer?.notes),
		notes: offer?.notes,
		check: act,
		update: act && offer?.due,
		"anyway-part": act && offer && !offer.due,
		"file-part": act,
		"file-result": file,
		"read-only": plugin && !mayUpdate && say("readOnly"),
		backup: links.backup,
		"question-text": question && offer && say("questionText", { new: offer.version, old: board.version }),
	};
}

function verdict({ fault, number }, offer, board) {
	if (fault || !offer)
		return say(fault ?? "checking", { number });
	return say(!offer.due ? "upToDate" : Number(offer.build) > Number(board.build) ? "newer" : "demanded");
}
