// SPDX-License-Identifier: ISC
// Brings together what happens (the browser's events, the router's answers), what follows from it
// (job.js) and what is shown (view.js). It only watches: the update is the router's.
import { NO_SESSION, call, exists } from "./bus.js";
import { begin, isMoving, pause, stage, update } from "./job.js";
import { picture } from "./sentences.js";
import { speak } from "./texts.js";
import { byId, focus, show, translate } from "./view.js";

const SILENCE = 2000; // milliseconds

// Without storage a reload asks for the password again.
const load = (storage, name) => attempt(() => JSON.parse(window[storage].getItem(`fwupdate.${name}`)));
const save = (storage, name, value) => attempt(() => window[storage].setItem(`fwupdate.${name}`, JSON.stringify(value)));

function attempt(what) {
	try {
		return what();
	} catch {
		return null;
	}
}

const saved = (storage, names) => names.map((name) => [name, load(storage, name)]);
let model = begin(Object.fromEntries([...saved("sessionStorage", ["session", "from", "watch"]), ...saved("localStorage", ["read", "took"])]));
let looking = false;
let timer = null;
let wanted = ""; // what gets the focus when it is there

function dispatch(type, more) {
	const { session } = model;
	const [next, effects] = update(model, { type, at: Date.now(), ...more });
	model = next;
	for (const effect of effects)
		run(effect, session);
	draw();
	plan();
}

function draw() {
	const shown = picture(model, Date.now());
	const before = document.activeElement;
	show(shown);
	if (!before.checkVisibility())
		wanted ||= "title"; // what had the focus is gone
	if (wanted && shown.stage !== "opening")
		focus(wanted, model.user);
	wanted = shown.stage === "opening" ? wanted : "";
}

const mayCall = (sid, method) => call(sid, "session", "access", { scope: "ubus", object: "fwupdate-job", function: method });

async function run({ ask, args, save: name, keep, value, reload, probe, focus: what }, session) {
	wanted = what ?? wanted;
	if (name)
		save("sessionStorage", name, value);
	else if (keep)
		save("localStorage", keep, value);
	else if (ask === "destroy")
		call(session?.sid, "session", ask);
	else if (ask === "login")
		dispatch(ask, { reply: await call(NO_SESSION, "session", ask, args) });
	else if (ask)
		dispatch(ask, { reply: await call(model.session.sid, "fwupdate-job", ask, args) });
	else if (probe)
		dispatch("probed", { links: { backup: await exists("/cgi-bin/luci/admin/system/flash"), home: await exists("/") } });
	else if (reload && (await fetch(location, { cache: "reload" })).ok)
		location.reload();
	if (ask && ask !== "destroy")
		look();
}

// One look at a time.
async function look() {
	if (looking || model.busy)
		return;
	looking = true;
	const silence = setTimeout(dispatch, SILENCE, "silence");
	const replies = await seen(model.session?.sid).finally(() => {
		clearTimeout(silence);
		looking = false;
	});
	dispatch("looked", replies);
}

async function seen(sid) {
	const status = sid && await call(sid, "fwupdate-job", "status");
	const access = (!sid || status.fault === "missing") && await mayCall(sid ?? NO_SESSION, "status");
	if (!sid || (access || status).fault)
		return { sid, status, access };
	const boot = status.data?.boot ?? "";
	return {
		sid, status, access,
		board: model.board?.boot !== boot && await call(sid, "system", "board"),
		rights: model.mayUpdate === undefined && await mayCall(sid, "start"),
	};
}

function plan() {
	clearTimeout(timer);
	const wait = looking ? null : pause(model, document.hidden, Date.now());
	if (wait !== null)
		timer = setTimeout(look, wait);
}

async function start() {
	translate(await speak(navigator.languages));
	if (window.top !== window.self)
		return byId("in-frame").hidden = false;
	save("sessionStorage", "from", model.from);
	byId("sign-in-form").onsubmit = () => dispatch("signIn", { user: byId("user").value, password: byId("password").value });
	byId("file-form").onsubmit = () => dispatch("file", { path: byId("file").value });
	for (const [id, event] of Object.entries({ "sign-out": "signOut", check: "checkAgain", "close-job": "close", update: "question", anyway: "question" }))
		byId(id).onclick = () => dispatch(event, { force: id === "anyway" });
	byId("question").onclose = () => dispatch("answer", { yes: byId("question").returnValue === "yes" });
	window.onstorage = ({ key }) => key === "fwupdate.read" && dispatch("read", { read: load("localStorage", "read") });
	document.onvisibilitychange = () => document.hidden || look();
	setInterval(() => attempt(() => isMoving(stage(model, Date.now())) && draw()), 1000); // a look tells of what it throws
	wanted = model.session ? "" : "password";
	draw();
	look();
}

// Whatever is thrown: the next look comes.
window.onerror = window.onunhandledrejection = () => {
	byId("broken").hidden = false;
	plan();
};

start();
