// SPDX-License-Identifier: ISC
// What a router may say, and the stages that the page comes to by it: for the tests of job.js, which
// need no browser, and for the browser tests, which show each of these scenes.
import { begin, update } from "../../web/job.js";

export const SID = "0123456789abcdef0123456789abcdef";
export const OLD = { version: "r1234", build: "171000000" };
export const NEW = { version: "r1300", build: "174200000" };
const NOW = 1800000000; // the router's clock

// --- What the router says

export const OFFER = { version: NEW.version, buildtime: NEW.build, releasenotes: "Faster start, fewer surprises.", need_update: "1", error_code: "0" };
export const SAME = { ...OFFER, version: OLD.version, buildtime: OLD.build, need_update: "0" };

export const checked = (answer, status = answer.need_update === "1" ? 10 : 0) => ({ data: { status, message: "", answer } });

export function status({ boot = "boot-1", update = { job: "none" }, state = "XML_DONE", more = {}, now = NOW, ...rest } = {}) {
	return { data: { boot, now, state: state && { state, message: "", ...more }, update, guard: {}, ...rest } };
}

export const running = { job: "running", started: NOW - 60 };
export const downloading = { update: running, state: "FIRMWARE_CONNECT", more: { progress: { total: 2097152, now: 524288 } } };
export const answered = (result, code = "0", words = "No Error", more = {}) => ({
	job: "answered", result, started: NOW - 60, ended: NOW - 5, ...more,
	answer: { version: NEW.version, buildtime: NEW.build, error_code: code, error_message: words },
});
export const installing = { update: answered("installing"), state: "WAIT_DELAY" };

export function board({ version, build } = OLD) {
	return { data: { hostname: "router", model: "Model-X", release: { revision: version, builddate: build } } };
}

export const ACCESS = { data: { access: true } };
export const NO_ACCESS = { data: { access: false } };
export const AWAY = { fault: "away" };
export const MISSING = { fault: "missing", number: -32000 };
export const DENIED = { fault: "denied", number: -32002 };

// --- What happens

// A look of a signed-in page. What it asks besides the status depends on what it knows, as in main.js.
export const look = (said, more = {}) => ({ type: "looked", sid: SID, status: status(said), board: board(), rights: ACCESS, ...more });
export const looked = (reply, more = {}) => ({ type: "looked", sid: SID, status: reply, ...more });
export const knocked = (access) => ({ type: "looked", access });
export const signsIn = [{ type: "signIn", user: "root", password: "router" }, { type: "login", reply: { data: { ubus_rpc_session: SID } } }];
export const found = (answer = OFFER) => ({ type: "check", reply: checked(answer) });
export const starts = [{ type: "question", force: false }, { type: "answer", yes: true }, { type: "start", reply: { data: { status: 0, message: "" } } }];
export const after = (seconds) => ({ wait: seconds });

const opened = [...signsIn, look()];
const offered = [...opened, found()];
const begun = [...offered, ...starts, look(downloading)];
const given = [...begun, look(installing)];
const gone = [...given, looked(AWAY)];
const back = [...gone, after(150), looked(DENIED), knocked(ACCESS), ...signsIn];
const newBoot = { boot: "boot-2", state: "NONE" };
const restarts = (runs, more) => [...back, look({ ...newBoot, ...more }, { board: board(runs) })];
const ended = (update, more) => [...offered, ...starts, look({ update, state: "NONE", ...more })];

// name: the stage, and the way there.
export const SCENES = {
	"sign-in": ["signIn", []],
	"wrong-password": ["signIn", [signsIn[0], { type: "login", reply: { fault: "error", number: 6 } }]],
	"no-rights": ["signIn", [...signsIn, looked(DENIED)]],
	"session-ended": ["signIn", [...offered, looked(DENIED)]],
	"session-ended-in-update": ["signIn", [...begun, looked(DENIED)]],
	"no-ubus": ["signIn", [signsIn[0], { type: "login", reply: { fault: "noUbus" } }]],
	opening: ["opening", signsIn],
	available: ["idle", offered],
	"up-to-date": ["idle", [...opened, found(SAME)]],
	"read-only": ["idle", [...signsIn, look({}, { rights: NO_ACCESS }), found()]],
	"server-down": ["idle", [...opened, { type: "check", reply: { data: { status: 1, message: "" } } }, { type: "doctor", reply: { data: { findings: [
		{ check: "clock", ok: false, found: "The clock says 1970.", means: "", do: "Set it, or let it be set: /etc/init.d/sysntpd restart" }] } } }]],
	"no-daemon": ["idle", [...signsIn, look({ state: null })]],
	"no-plugin": ["idle", [...signsIn, looked(MISSING, { access: ACCESS, board: board(), rights: ACCESS })]],
	"no-answer": ["idle", [...offered, looked(AWAY)]],
	"file-bad": ["idle", [...opened, found(SAME), { type: "file", path: "/tmp/x" }, { type: "test", reply: { data: { status: 1, answer: { check_code: "-9" } } } }]],
	question: ["idle", [...offered, { type: "question", force: false }]],
	"not-started": ["idle", [...offered, ...starts.slice(0, 2), { type: "start", reply: { data: { status: 3, message: "" } } }, look()]],
	asking: ["asking", [...offered, ...starts, look({ update: running, state: "NETWORK_GET" })]],
	loading: ["loading", [...begun, after(3), look({ ...downloading, more: { progress: { total: 2097152, now: 1048576 } } })]],
	"size-unknown": ["loading", [...offered, ...starts, look({ update: running, state: "FIRMWARE_CONNECT" })]],
	foreign: ["loading", [...opened, look({ ...downloading, update: { job: "none" } })]],
	uncertain: ["loading", [...begun, looked(MISSING, { access: MISSING })]],
	verifying: ["verifying", [...begun, { type: "silence" }]],
	installing: ["installing", given],
	restarting: ["restarting", gone],
	"long-away": ["restarting", [...gone, after(700), looked(AWAY)]],
	starting: ["starting", [...gone, looked(MISSING, { access: MISSING })]],
	returned: ["returned", [...gone, after(150), looked(DENIED), knocked(ACCESS)]],
	trial: ["trial", restarts(NEW, { guard: { trial: { left: 210, checks: { "10-daemon": true, "30-server": false } } } })],
	done: ["done", [...restarts(NEW), found({ ...SAME, version: NEW.version, buildtime: NEW.build })]],
	old: ["old", restarts(OLD)],
	other: ["other", restarts({ version: "r1299", build: "174100000" })],
	changed: ["changed", [...signsIn, look(downloading), looked(AWAY), after(200), looked(DENIED), knocked(ACCESS), ...signsIn, look(newBoot, { board: board(NEW) })]],
	"taken-back": ["takenBack", restarts(OLD, { guard: { outcome: { result: "taken-back", build: NEW.build, version: NEW.version, check: "30-server" } } })],
	refused: ["refused", [...begun, look({ ...installing, guard: { refused: { time: NOW - 2, reason: "not signed by a key of this router" } } })]],
	"not-restarted": ["notRestarted", [...given, after(200), look({ ...installing, now: NOW + 200 })]],
	failed: ["failed", ended(answered("failed", "3", "Bad Model [-9]"))],
	"failed-long-ago": ["failed", [...signsIn, look({ update: answered("failed", "2", ""), now: NOW + 7 * 86400, state: "NONE" }), found()]],
	nothing: ["nothing", ended(answered("nothing"))],
	lost: ["lost", ended({ job: "lost", lost: "daemon", started: NOW - 60, ended: NOW - 5 })],
};

// Plays events from the beginning, or from `from`; each takes a second. Returns {model, effects, now}.
export function play(events, from = { model: begin({}), effects: [], now: 1800000000000 }) {
	let { model, effects, now } = from;
	for (const event of events) {
		now += (event.wait ?? 1) * 1000;
		if (event.wait)
			continue;
		const [next, more] = update(model, { at: now, ...event });
		model = next;
		effects = [...effects, ...more];
	}
	return { model, effects, now };
}
