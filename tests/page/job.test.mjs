// SPDX-License-Identifier: ISC
// The page without a browser: what was seen, and what follows from it.
import assert from "node:assert/strict";
import test from "node:test";
import { understood } from "../../web/bus.js";
import { GERMAN } from "../../web/german.js";
import { begin, mayAct, pause, stage, update } from "../../web/job.js";
import { picture } from "../../web/sentences.js";
import { plain, speak, text } from "../../web/texts.js";
import * as scenes from "./scenes.mjs";

const { ACCESS, AWAY, DENIED, MISSING, NEW, OLD, SCENES, SID, after, answered, board, found, installing, knocked, look, looked, play, signsIn, starts, status } = scenes;

// What a page shows after these events: stage, model, what stands in the picture, and each part as text.
function shown(events, from) {
	const { model, now, effects } = play(events, from);
	const { parts, title, ...more } = picture(model, now);
	const texts = Object.fromEntries(Object.entries(parts).map(([id, part]) => [id, Array.isArray(part) ? part.map(plain) : part?.key ? plain(part) : part || false]));
	return { ...more, stage: stage(model, now), title: plain(title), model, now, effects, asked: effects.filter(({ ask }) => ask).map(({ ask }) => ask), ...texts };
}

const scene = (name) => play(SCENES[name][1]);

// As after a reload, or in a tab that slept: what was saved is all there is.
function reloaded({ effects, now, model }, saved = {}) {
	const values = { session: model.session };
	for (const { save, keep, value } of effects)
		values[save ?? keep ?? ""] = value;
	return { model: begin({ ...values, ...saved }), effects: [], now };
}

for (const [name, [wanted, events]] of Object.entries(SCENES))
	test(`scene ${name} is ${wanted}`, () => assert.equal(shown(events).stage, wanted));

// --- A restart is judged by the boot id, whatever the page saw of it

const asleep = (name, boot, runs) => [
	scene(name), after(3600), looked(DENIED), knocked(ACCESS), ...signsIn, look({ boot, state: "NONE" }, { board: board(runs) })];

for (const name of ["asking", "loading", "verifying", "installing", "restarting", "uncertain"]) {
	for (const [boot, runs, wanted] of [["boot-2", NEW, "done"], ["boot-2", OLD, "old"], ["boot-2", { version: "r9", build: "9" }, "other"]])
		test(`a tab that slept while ${name} says ${wanted}`, () => {
			const [from, ...events] = asleep(name, boot, runs);
			assert.equal(shown(events, from).stage, wanted);
			assert.equal(shown(events, reloaded(from, { session: null })).stage, wanted, "also after a reload");
		});
}

test("a tab that slept asks for the password with the reason", () => {
	const { stage: at, "job-text": words, asked, "sign-in-why": why, "job-stays": goesOn } = shown([after(3600), looked(DENIED)], scene("loading"));
	assert.equal(at, "returned");
	assert.deepEqual([why, goesOn], [false, false], "nobody knows whether the update goes on");
	assert.equal(words, "Sign in to see what became of the update.");
	assert.ok(asked.includes("destroy"));
});

test("what a refused session means after a silence, however short, nobody knows", () => {
	assert.equal(shown([looked(DENIED)], scene("loading")).stage, "signIn");
	assert.equal(shown([looked(AWAY), looked(DENIED)], scene("loading")).stage, "returned");
});

test("a lost connection is no restart", () => {
	const { stage: at, model } = shown([look(installing)], scene("restarting"));
	assert.equal(at, "installing");
	assert.equal(model.watch.away, false);
});

test("the offer is noted at the start", () => {
	const { model } = play([...SCENES.available[1], ...starts.slice(0, 2)]);
	assert.deepEqual(model.watch.offer, NEW);
	assert.equal(model.watch.boot, "boot-1");
});

test("an update that somebody else started ends well when the offered version runs", () => {
	const began = play([...SCENES.available[1], look({ ...scenes.downloading, update: { job: "none" } }), look({ state: "WAIT_DELAY" })]);
	assert.equal(stage(began.model, began.now), "installing");
	const events = [looked(AWAY), after(200), looked(DENIED), knocked(ACCESS), ...signsIn, look({ boot: "boot-2", state: "NONE" }, { board: board(NEW) })];
	assert.equal(shown(events, began).stage, "done");
});

test("the build of before is no proof of an installation that nobody saw", () => {
	const offer = { ...scenes.SAME };
	const began = play([...signsIn, look(), found(offer), { type: "question", force: true }, { type: "answer", yes: true },
		{ type: "start", reply: { data: { status: 0 } } }, look(scenes.downloading)]);
	const events = [looked(AWAY), after(60), looked(DENIED), ...signsIn, look({ boot: "boot-2", state: "NONE" })];
	assert.equal(shown(events, began).stage, "old");
});

test("without the plugin the versions tell", () => {
	const events = [...SCENES.returned[1], ...signsIn, looked(MISSING, { access: ACCESS, board: board(NEW), rights: ACCESS })];
	assert.equal(shown(events).stage, "done");
});

test("the page is loaded anew once, when the router is back", () => {
	const loads = ({ effects }) => effects.filter(({ reload }) => reload).length;
	const back = scene("returned");
	assert.equal(loads(back), 1);
	assert.equal(loads(play([knocked(ACCESS), knocked(AWAY), knocked(ACCESS)], reloaded(back))), 0);
	assert.equal(loads(scene("done")), 1);
	assert.equal(loads(play([look()], reloaded(scene("done")))), 0);
});

// --- Sessions and services

test("an account without rights is told so, and not that its session has ended", () => {
	const { "sign-in-fault": fault, "sign-in-why": why, asked } = shown(SCENES["no-rights"][1]);
	assert.equal(fault, "This account may not use this page.");
	assert.equal(why, false);
	assert.ok(asked.includes("destroy"));
});

test("only an update that is followed goes on without the session", () => {
	assert.equal(shown(SCENES["session-ended"][1])["sign-in-why"], "Your session has ended.");
	assert.equal(shown(SCENES["session-ended-in-update"][1])["sign-in-why"], "Your session has ended. The update goes on without it.");
	assert.equal(shown([looked(DENIED)], scene("failed"))["sign-in-why"], "Your session has ended.");
});

test("a session service that is gone leaves the last view, marked as uncertain", () => {
	const said = shown(SCENES.uncertain[1]);
	assert.equal(said.stage, "loading");
	assert.match(said.connection, /^The router’s session service \(rpcd\) does not answer\. This was so at /);
	assert.equal(said["job-hint"], false, "nobody else is blamed");
	assert.equal(said.model.plugin, true);
});

test("nothing advises to restart a router that may be flashing", () => {
	for (const name of Object.keys(SCENES).filter((one) => one !== "not-restarted")) {
		for (const reply of [{ fault: "error", number: -32603 }, { fault: "error", number: 9 }, AWAY, MISSING]) {
			const from = scene(name);
			const { parts } = picture(play([from.model.session ? looked(reply, { access: reply }) : knocked(reply)], from).model, from.now + 1000);
			const all = Object.values(parts).flat().filter((part) => part?.key).map(plain).join(" ");
			assert.doesNotMatch(all, /[Rr]estart the router|switch it off and on/, name);
		}
	}
});

for (const [reply, wanted] of [
	[{ fault: "error", number: -32603 }, "The router could not do that (error -32603). This page keeps trying."],
	[{ fault: "noUbus" }, "The router has no /ubus: the package uhttpd-mod-ubus is missing. This page keeps trying."],
	[{ fault: "late" }, "The router did not answer in time. This page keeps trying."]])
	test(`a look that ends with ${reply.fault} says so`, () => assert.equal(shown([looked(reply)], scene("available")).connection, wanted));

test("signing in shows that it is at work", () => {
	const { model, now } = play(signsIn.slice(0, 1));
	assert.equal(picture(model, now).signingIn, true);
	assert.equal(plain(picture(model, now).parts["sign-in-button"]), "Signing in …");
});

test("links are there where they lead somewhere", () => {
	const links = (events, from) => {
		const { home, backup, luci } = shown(events, from);
		return { home, backup, luci };
	};
	const some = { type: "probed", links: { home: true, backup: true } };
	assert.ok(scene("available").effects.some(({ probe }) => probe));
	assert.deepEqual(links([], scene("question")), { home: false, backup: false, luci: false });
	assert.deepEqual(links([some], scene("question")), { home: true, backup: true, luci: false });
	assert.deepEqual(links([{ type: "probed", links: { home: false, backup: false } }], scene("question")), { home: false, backup: false, luci: false });
	assert.deepEqual(links([some], play(SCENES.available[1], { ...play([]), model: begin({ from: "luci" }) })), { home: false, backup: true, luci: true });
});

test("who and where: the router's name, the account, and root before anybody signed in", () => {
	const { router, account, user } = shown([{ type: "signIn", user: "viewer", password: "" }, signsIn[1], look()]);
	assert.deepEqual([router, account, user], ["router", "viewer", "viewer"]);
	const unnamed = { data: { hostname: "router", release: { version: "22.03", builddate: "7" } } };
	assert.equal(shown([...signsIn, look({}, { board: unnamed })])["here-version"], "22.03", "where there is no revision");
	assert.equal(shown([]).user, "root");
	assert.equal(shown([{ type: "signOut" }], scene("available")).user, "root");
});

test("the answer to another session says nothing", () => {
	const from = scene("available");
	assert.deepEqual(play([{ ...look(scenes.downloading), sid: "f".repeat(32) }], from).model, from.model);
});

// --- Failures, checks, starts

test("an old failure says when it was, and once read stays read in every tab", () => {
	const old = scene("failed-long-ago");
	assert.equal(shown([], old)["job-when"], "That was 7 days ago.");
	const closed = play([{ type: "close" }], old);
	assert.equal(stage(closed.model, closed.now), "idle");
	const kept = closed.effects.find(({ keep }) => keep === "read").value;
	assert.equal(shown([{ type: "read", read: kept }], old).stage, "idle", "in another tab");
	const next = { ...answered("failed", "2", ""), started: 1900000000 };
	assert.equal(shown([look({ update: next, state: "NONE" })], closed).stage, "failed", "the next one is another");
	assert.equal(shown([look({ update: answered("failed", "2", ""), state: "NONE" })], reloaded(closed)).stage, "idle", "after a reload");
});

for (const [name, more, verdict, sign] of [
	["available", {}, "A new version is available", "new"], ["up-to-date", {}, "This router is up to date", "good"],
	["available", { buildtime: "170000000" }, "The update server asks for this version", "new"],
	["up-to-date", { buildtime: "170000000" }, "This router is up to date", "good"],
	["available", { buildtime: OLD.build }, "The update server asks for this version", "new"]])
	test(`the verdict "${verdict}" comes first, with a sign`, () => {
		const said = shown([{ type: "checkAgain" }, found({ ...(name === "available" ? scenes.OFFER : scenes.SAME), ...more })], scene(name));
		assert.deepEqual([said.verdict, said.sign, said.update, said["anyway-part"]], [verdict, sign, sign === "new", sign !== "new"]);
		assert.equal(said["checked-at"], plain({ key: "checkedAt", values: { at: said.now } }), "with the time of the check");
		assert.match(said["checked-at"], /^Last check: \d/);
	});

test("a check that failed is repeated after a minute", () => {
	const failed = scene("server-down");
	assert.equal(play([after(50), look()], failed).model.busy, "");
	assert.equal(play([after(60), look()], failed).model.busy, "check");
	assert.equal(play([after(600), look()], scene("available")).model.busy, "", "one that did not fail is not");
});

test("what is wrong with the router stands below a failed check", () => {
	assert.deepEqual(shown(SCENES["server-down"][1]).findings, ["The clock says 1970. Set it, or let it be set: /etc/init.d/sysntpd restart"]);
});

test("a check that is refused because an update runs keeps nothing", () => {
	const { verdict, update: button } = shown([{ type: "checkAgain" }, { type: "check", reply: { data: { status: 4, message: "" } } }], scene("available"));
	assert.equal(verdict, "An update is already running.");
	assert.equal(button, false);
});

test("an update that found nothing asks for the offer again, once", () => {
	const checks = ({ effects }) => effects.filter(({ ask }) => ask === "check").length;
	const nothing = look({ update: answered("nothing"), state: "NONE" });
	assert.equal(checks(scene("nothing")), checks(scene("failed")) + 1);
	assert.equal(checks(play([found(), nothing, nothing], scene("nothing"))), checks(scene("nothing")));
});

test("a start without a clear answer is doubted until a job appears", () => {
	const doubt = play([...starts.slice(0, 2), { type: "start", reply: AWAY }, look()], scene("available"));
	assert.equal(shown([], doubt).connection, "No clear answer came. If the update has begun, it appears here.");
	assert.equal(shown([look({ update: answered("failed", "3", "") })], doubt).connection, false);
});

test("a question that came too late starts nothing", () => {
	const { asked, connection } = shown([look(scenes.downloading), { type: "answer", yes: true }], scene("question"));
	assert.ok(!asked.includes("start"));
	assert.equal(connection, "Not started. An update is already running.");
});

for (const path of ["tmp/x", "/tmp/a b", "/tmp/$(reboot)", "/tmp/x;y", `/${"x".repeat(112)}`, "/"])
	test(`the path ${path.slice(0, 20)} is refused`, () => {
		const { "file-result": result, asked } = shown([{ type: "file", path }], scene("up-to-date"));
		assert.match(result, /is refused\. A path begins with/);
		assert.ok(!asked.includes("test"));
	});

for (const [code, wanted] of Object.entries({
	0: "firmware for this router, and undamaged.", "-2": "cannot be read.", "-3": "cannot be read.", "-4": "cannot be read.", "-5": "no firmware.",
	"-6": "damaged firmware.", "-7": "damaged firmware.", "-9": "firmware for another model.", "-8": "refused (code -8).", toString: "refused (code toString)." }))
	test(`the code ${code} of a file has its sentence`, () => {
		const events = [{ type: "file", path: "/x" }, { type: "test", reply: { data: { status: 0, answer: { check_code: code } } } }];
		assert.equal(shown(events, scene("up-to-date"))["file-result"], `/x: ${wanted}`);
	});

for (const [data, wanted] of [
	[{ status: 1, message: "no such file\nx" }, "The router says: no such file x"], [{ status: 4, message: "busy" }, "An update is already running."],
	[{ status: 3, message: "x" }, "The update service does not answer."], [{}, "This page does not understand the router’s answer."]])
	test(`a file that was not checked: ${wanted}`, () => {
		assert.equal(shown([{ type: "file", path: "/x" }, { type: "test", reply: { data } }], scene("up-to-date"))["file-result"], wanted);
	});

for (const [update, wanted, words] of [
	[answered("failed", "2"), "The download failed. Nothing was changed. Is the router online, with enough free memory?", false],
	[answered("failed", "3", "Bad Model [-9]"), "The firmware is damaged, or made for another model. Nothing was changed.", "The router says: Bad Model [-9]"],
	[answered("failed", "1"), "The update server gave no usable answer. Nothing was changed.", false],
	[answered("busy", "6", "Already updating"), "Another update is running. If there is none: /etc/init.d/fwupdate restart", "The router says: Already updating"],
	[answered("failed", "5", "x\x1by"), "The firmware could not be written.", "The router says: x\ufffdy"],
	[answered("failed", "toString", ""), "It ended with the unknown code toString.", false],
	[{ job: "refused", started: 1, ended: 2, status: 9 }, "The router could not do that (error 9).", false]])
	test(`the ending "${wanted}"`, () => {
		const said = shown([look({ update })], scene("available"));
		assert.deepEqual([said.stage, said["job-text"], said["job-detail"]], ["failed", wanted, words]);
	});

test("nothing stands beside a running update, and no button contradicts the advice to restart", () => {
	for (const name of ["asking", "loading", "verifying", "installing", "restarting", "starting", "trial", "not-restarted"]) {
		const said = shown([], scene(name));
		assert.deepEqual([said.job, said.versions, said.enabled], [true, false, false], name);
	}
	for (const name of ["failed", "done", "refused"])
		assert.deepEqual([shown([], scene(name)).versions, shown([], scene(name)).enabled], [true, true], name);
});

test("installing and restarting move: a bar without end, and the time", () => {
	assert.deepEqual([shown([], scene("size-unknown")).bar, shown([], scene("size-unknown")).progress], [true, null]);
	for (const name of ["installing", "restarting", "starting"]) {
		const said = shown([after(125)], scene(name));
		assert.deepEqual([said.bar, said.progress, said["job-stays"], said["job-hint"]], [true, null, true, false], name);
		assert.match(said.figures, /^0[23]:\d\d so far · usually 3 to 5 minutes$/, name);
	}
	assert.equal(shown([], scene("done")).bar, false);
	assert.match(shown([after(60), look(installing)], scene("installing")).figures, /^01:01 /, "a look begins no other update");
});

// --- The guard

test("a refusal gives its reason, and counts for its own job only", () => {
	assert.equal(shown(SCENES.refused[1])["job-text"], "Nothing was changed. The reason: not signed by a key of this router");
	const earlier = { refused: { time: 1, reason: "x" } };
	assert.equal(shown([look({ ...installing, guard: earlier })], scene("loading")).stage, "installing");
});

test("a trial shows its checks and ends as done, or as taken back", () => {
	const late = shown([look({ guard: { trial: { left: 9, checks: { "20-network": true, own: false } } } })], scene("opening"));
	assert.equal(late.stage, "trial", "for a page that saw no restart as well");
	assert.deepEqual(late["job-list"], ["✓ the network is up (20-network)", "… own"]);
	const trial = scene("trial");
	assert.deepEqual(shown([], trial)["job-list"], ["✓ the update service answers (10-daemon)", "… the update server answers (30-server)"]);
	assert.equal(mayAct(trial.model, trial.now), false);
	assert.equal(shown([look({ boot: "boot-2", state: "NONE" }, { board: board(NEW) })], trial).stage, "done");
	const returned = look({ boot: "boot-3", state: "NONE", guard: { outcome: { result: "taken-back", build: NEW.build, version: NEW.version, check: "30-server" } } });
	const { stage: at, "job-text": words } = shown([looked(AWAY), after(90), looked(DENIED), knocked(ACCESS), ...signsIn, returned], trial);
	assert.equal(at, "takenBack");
	assert.equal(words, "Build 174200000 did not pass a check: the update server answers (30-server). The router runs version r1234.");
});

test("what was taken back stays read, after another start as well", () => {
	const guard = { outcome: { result: "taken-back", build: NEW.build, version: NEW.version, check: "x" } };
	const opened = play([...signsIn, look({ guard })]);
	assert.equal(stage(opened.model, opened.now), "takenBack", "for a page that saw nothing of it as well");
	const closed = play([{ type: "close" }], opened);
	assert.equal(shown([look({ guard, boot: "boot-9" }, { board: board() })], closed).stage, "idle");
});

// --- Looking

test("a look costs the router little", () => {
	const wait = (name, hidden) => {
		const { model, now } = scene(name);
		return pause(model, hidden, now);
	};
	for (const name of ["loading", "installing", "restarting", "starting", "returned", "trial"])
		assert.deepEqual([wait(name, false), wait(name, true)], [3000, 3000], name);
	for (const name of ["available", "up-to-date", "failed", "done"])
		assert.deepEqual([wait(name, false), wait(name, true)], [15000, null], name);
	assert.deepEqual([wait("no-answer", false), wait("no-answer", true)], [5000, null]);
	assert.deepEqual([wait("sign-in", false), wait("session-ended", false)], [null, null]);
});

test("how long restarts took is known the next time", () => {
	const done = play([{ type: "close" }], scene("done"));
	assert.equal(done.effects.filter(({ keep }) => keep === "took").length, 1);
	const again = play(SCENES.installing[1], reloaded(done, { session: null, watch: null }));
	assert.match(shown([after(65)], again).figures, /^01:05 so far · usually 2 to 3 minutes$/);
});

for (const [name, id, wanted] of [
	["wrong-password", "sign-in-fault", "Wrong user name or password."], ["done", "job-title", "Update complete"],
	["failed", "job-title", "The update failed"], ["foreign", "job-hint", "Somebody else started this update."],
	["no-plugin", "verdict", "No updates from here: fwupdate-job is missing on the router."], ["no-daemon", "verdict", "The update service does not answer."],
	["not-started", "connection", "Not started. The update service does not answer."],
	["size-unknown", "job-text", "The size of the firmware is not known yet."], ["long-away", "job-hint", text("longAway")]])
	test(`scene ${name} says in plain words: ${wanted}`, () => assert.equal(shown([], scene(name))[id], wanted));

test("good news look good, bad ones bad", () => {
	const tones = { good: ["done", "changed"], bad: ["failed", "lost", "old", "other", "refused", "not-restarted", "taken-back"], "": ["nothing", "loading", "trial", "available"] };
	for (const [tone, names] of Object.entries(tones))
		assert.deepEqual(names.map((name) => shown([], scene(name)).tone), names.map(() => tone), tone);
});

test("the title of the tab tells", () => {
	assert.equal(shown(SCENES.loading[1]).title, "50% – Firmware update");
	assert.equal(shown(SCENES.done[1]).title, "Update complete – Firmware update");
	assert.equal(shown(SCENES.available[1]).title, "Firmware update");
});

// --- Whatever the router says

const RUBBISH = [undefined, null, 7, "x", true, [], {}, [1], { data: 1 }, { toString: 1 }];

test("an answer without a shape is never taken for one with", () => {
	for (const one of RUBBISH) {
		const data = { boot: one, now: one, state: one, update: { job: one, started: one, ended: one, result: one, answer: one, status: one }, guard: one };
		for (const said of [{ data }, { data: { ...data, update: one } }, { data: { guard: { refused: one, trial: one, outcome: one }, state: { progress: one, state: one } } }]) {
			assert.equal(shown([{ ...look(), status: said }], play(signsIn)).stage, one && typeof one === "object" && !Array.isArray(one) && said.data.guard?.trial ? "trial" : "idle");
			for (const more of [{ board: { data: one } }, { rights: { data: { access: one } } }]) {
				const at = shown([{ ...look(), status: said, ...more }], play(signsIn)).stage;
				assert.equal(at, one === true && more.rights ? shown([{ ...look(), status: said }], play(signsIn)).stage : "opening");
			}
		}
		assert.notEqual(play([{ type: "checkAgain" }, { type: "check", reply: { data: { status: one, answer: one } } }], scene("up-to-date")).model.checked.fault, undefined);
		begin({ session: one, watch: one, read: one, took: one, from: one });
	}
});

test("the gateway's answers", () => {
	for (const [reply, wanted] of [
		[{ result: [0, { a: 1 }] }, { data: { a: 1 } }], [{ result: [0] }, { data: {} }], [{ result: [0, [1]] }, { data: {} }],
		[{ result: [6] }, { fault: "error", number: 6 }], [{ result: [4] }, { fault: "missing", number: 4 }], [{ result: [7] }, { fault: "late", number: 7 }],
		[{ error: { code: -32002 } }, { fault: "denied", number: -32002 }], [{ error: { code: -32000 } }, { fault: "missing", number: -32000 }],
		[{ error: { code: -32603 } }, { fault: "error", number: -32603 }], [{ error: { code: "toString" } }, { fault: "garbled", number: null }], [{ error: {} }, { fault: "garbled", number: null }],
		...[null, [], 7, false, {}, { result: "0" }, { result: ["0", {}] }].map((one) => [one, { fault: "garbled" }])])
		assert.deepEqual(understood(reply), wanted);
});

// --- Texts

const names = (sentence) => (sentence.match(/\{\w+\}/g) ?? []).sort();

test("German says all that English says", async () => {
	await speak(["en"]);
	const english = Object.fromEntries(Object.keys(GERMAN).map((key) => [key, text(key)]).filter(([, one]) => one !== undefined));
	assert.ok(Object.keys(english).length > 90);
	for (const [key, sentence] of Object.entries(english))
		assert.deepEqual(names(GERMAN[key]), names(sentence), key);
});

test("each scene can be said in each language", async () => {
	for (const language of ["de-AT", "en", "fr"]) {
		assert.equal(await speak([language]), language === "de-AT" ? "de" : "en");
		for (const [name, [, events]] of Object.entries(SCENES)) {
			const said = JSON.stringify(shown(events), (key, value) => (["model", "effects", "asked", "progress"].includes(key) ? undefined : value));
			assert.doesNotMatch(said, /undefined|NaN|null|\{\w+\}/, `${name} in ${language}`);
		}
	}
});

// --- Every sequence of events up to a depth

const EVENTS = [
	look(), look(scenes.downloading), look(installing), look({ update: answered("failed", "3", "x") }), look({ update: { job: "lost", started: 1 } }),
	look({ boot: "boot-2", state: "NONE" }, { board: board(NEW) }), look({ boot: "boot-2", state: null }, { board: board() }),
	look({ ...installing, guard: { refused: { time: 2e9, reason: "x" } } }), look({ boot: "boot-2", guard: { trial: { left: 9 } } }, { board: board(NEW) }),
	looked(AWAY), looked(DENIED), looked(MISSING, { access: MISSING }), looked(MISSING, { access: ACCESS, board: board(), rights: ACCESS }),
	knocked(ACCESS), knocked(MISSING), ...signsIn, found(), { type: "check", reply: AWAY },
	{ type: "question", force: true }, { type: "answer", yes: true }, starts[2], { type: "start", reply: AWAY },
	{ type: "close" }, { type: "signOut" }, { type: "silence" }, after(40), after(200)];
const KEYS = new Set(Object.keys(GERMAN));
const TEXTS = ["router", "account", "here-version", "here-build", "here-model", "offer-version", "offer-build", "notes"]; // the elements that get text as it is

function check(before, event, { model, now, effects }) {
	const at = stage(model, now);
	const { parts, title, question } = picture(model, now);
	const sentences = [title, ...Object.values(parts).flat()].filter((part) => part?.key);
	assert.ok(sentences.every(({ key }) => KEYS.has(key)), `${at}: ${sentences.map(({ key }) => key)}`);
	assert.ok(Object.entries(parts).every(([id, part]) => typeof part !== "string" || part === "" || TEXTS.includes(id)), "no text in place of a part of the page");
	const { session, facts, watch, board: runs } = model;
	if (at === "done")
		assert.ok(watch.offer.build === runs.build && (watch.boot !== facts.boot || !facts.boot), "done is never guessed");
	if (!session)
		assert.ok(!facts && !runs && !question && !parts.versions && !parts.who, "who is signed out sees nothing");
	if (facts && (facts.kind === "running" || at === "installing" || at === "trial"))
		assert.ok(!mayAct(model, now), "nothing can be started while something runs");
	for (const { ask, reload } of effects) {
		if (["check", "test", "start"].includes(ask))
			assert.ok(facts.kind !== "running" && model.busy, "nothing disturbs an update");
		if (reload)
			assert.ok(!before.watch?.returned && watch.returned, "loaded once");
	}
	assert.ok(model.why !== "whyEndedUpdate" || watch);
	assert.ok(!parts.job || !parts.versions || parts["close-job"], "nothing else while a job runs");
	assert.ok(model.busy || !session || pause(model, false, now) !== null, "the next look comes");
}

function explore(from, depth) {
	let count = 0;
	for (const event of EVENTS) {
		// A start is answered only when there was one.
		if ((event.type === "start" && from.model.busy !== "start") || (event.type === "check" && from.model.busy !== "check"))
			continue;
		const next = play([event], { ...from, effects: [] });
		check(from.model, event, next);
		count += 1 + (depth > 1 ? explore(next, depth - 1) : 0);
	}
	return count;
}

test("every sequence of events keeps the rules", () => {
	let count = explore(play([]), 3);
	for (const name of Object.keys(SCENES))
		count += explore(scene(name), ["available", "loading", "restarting", "returned", "done"].includes(name) ? 3 : 2);
	console.log(`${count} sequences of events`);
	assert.ok(count > 100000);
});
