// SPDX-License-Identifier: ISC
// What the page knows and what follows from it. Pure: no document, no network, no storage; whoever
// calls brings the time. sentences.js says it in words.
//
// The update is the router's. From the moment that the page sees or starts one it keeps in `watch`
// what a restart is measured by: the boot id, what ran, what was offered.
//
//   stage        what is seen                          next stage
//   idle         an update runs                        asking, loading, verifying
//   asking,      the daemon's own stage                asking, loading, verifying
//   loading,     no answer                             the same, marked as uncertain
//   verifying    the daemon's answer                   installing, failed, nothing
//                the answer is lost                    lost
//   installing   no answer                             restarting
//                the guard's refusal                   refused
//                the old system for three minutes      notRestarted
//   restarting   an answer, but services missing       starting
//   starting     the session is refused                returned
//   returned     signed in, the same boot              as the job says
//
//   any          another boot, on trial                trial
//                another boot, the offered build       done
//                another boot, the build of before     old
//                another boot, any other build         other; changed if no offer is known
//                another boot, taken back              takenBack
//                the session is refused                signIn; returned after a long silence
//
// An ending lasts until it is read. "Done" is never guessed: it takes another boot than before, and
// the build that runs then.
import { field, isTable, number, oneLine, readBoard, readFindings, readOffer, readStatus, table } from "./facts.js";

const PERIOD = { moving: 3000, fault: 5000, idle: 15000 }; // milliseconds between two looks
const RECENT = 30000; // after a longer silence nobody knows what became of an update
const RESTART_LIMIT = 180000; // that an installer may take before the router goes away
const CHECK_AGAIN = 60000; // after a check that failed
const JOB_STATES = ["FIRMWARE_CONNECT", "FIRMWARE_CHECK", "FIRMWARE_UPDATE"]; // the others are of a query
const ENDINGS = ["failed", "nothing", "lost", "refused", "notRestarted", "takenBack", "done", "old", "other", "changed"];
const PATH = /^\/[\w./-]{1,111}$/;

export const say = (key, values = {}) => ({ key, values });
const isSession = (sid) => /^[0-9a-f]{32}$/.test(sid);

// The model. From what was saved, `session`, `from` and `watch` in this tab, `read` and `took` in all:
//
//   session     {sid, user}          from      "luci": the session is its
//   watch       the update followed  read      the endings that were read
//   took        minutes that the last restarts took
//
// Otherwise empty until it is known:
//
//   why         above the form       signInFault, file, notStarted   sentences
//   fresh       nothing was answered yet since signing in
//   link        what is wrong with the last look, {fault, number}
//   seen        when one was answered
//   silent      one takes long
//   facts, board, mayUpdate          what the router said, what runs there, what the account may do
//   offer, checked, findings         the update server's; the last check, {at, fault, number}; why it failed
//   question    {force}, while it is open
//   busy        signIn, check, file or start
export function begin({ session, from, watch, read, took }) {
	return {
		session: isSession(field(session, "sid")) ? session : null,
		from: field(session, "from") || (from === "luci" && from),
		user: "root",
		seen: 0,
		plugin: true,
		watch: isTable(table(watch).before) && isTable(watch.offer) ? watch : null,
		read: Array.isArray(read) ? read : [],
		took: Array.isArray(took) ? took : [],
		links: {}, // pages that the router has: backup, home
	};
}

// --- What follows

const isAway = ({ link }) => link?.fault === "away" || link?.fault === "late";
const runs = ({ kind, state }) => kind === "running" || JOB_STATES.includes(state);
const same = (one, other) => one.build === other.build || Number(one.build) === Number(other.build);
const changed = ({ watch, board }) => board.version !== watch.before.version || !same(board, watch.before);
const nameOf = (takenBack) => `taken back ${takenBack.build}`;

// By the boot id, whatever the page saw of it; without one by what runs.
function restarted(model) {
	const { watch, facts, board } = model;
	if (!watch || !facts || !board)
		return false;
	return watch.boot && facts.boot ? watch.boot !== facts.boot : changed(model);
}

function judged(model) {
	const { watch: { offer, installing }, board, facts } = model;
	const known = offer.version || offer.build;
	if (facts.takenBack && (!known || same(facts.takenBack, offer)))
		return "takenBack";
	if (facts.trial)
		return "trial";
	const fits = board.build ? same(board, offer) : board.version === offer.version;
	if (fits && (installing || changed(model))) // the offer may be what ran before
		return "done";
	return !changed(model) ? "old" : known ? "other" : "changed";
}

// Milliseconds. The router's clock knows it also when no page was open.
export function installingFor({ facts, watch, seen }, now) {
	return Math.max(now - (watch?.since ?? now), facts.ago * 1000 + now - seen);
}

function jobStage(model, now) {
	const { facts, read, silent } = model;
	if (runs(facts) && facts.state === "FIRMWARE_CONNECT" && !silent)
		return "loading";
	if (runs(facts)) // the daemon answers nobody while it verifies
		return [...JOB_STATES, "WAIT_DELAY"].includes(facts.state) ? "verifying" : "asking";
	if (facts.takenBack && !read.includes(nameOf(facts.takenBack)))
		return "takenBack";
	const given = facts.kind === "installing" || (facts.kind === "none" && facts.state === "WAIT_DELAY");
	if (read.includes(facts.id) || (facts.kind === "none" && !given))
		return "idle";
	if (given)
		return facts.refused ? "refused" : installingFor(model, now) < RESTART_LIMIT ? "installing" : "notRestarted";
	return facts.kind === "lost" || facts.kind === "nothing" ? facts.kind : "failed";
}

// The one word for what is going on; everything shown follows from it.
export function stage(model, now) {
	const { session, watch, link, facts, board } = model;
	if (!session && (!watch?.away || (link && !watch.installing)))
		return "signIn";
	if (!session && !link)
		return "returned";
	if (watch?.installing && link && !restarted(model))
		return isAway(model) ? "restarting" : "starting";
	if (!facts || !board)
		return "opening";
	return restarted(model) ? judged(model) : facts.trial ? "trial" : jobStage(model, now);
}

export const isEnding = (stage) => ENDINGS.includes(stage);
export const isMoving = (stage) => ![...ENDINGS, "signIn", "opening", "idle"].includes(stage);

export function mayAct(model, now) {
	const at = stage(model, now);
	return !model.busy && !model.link && (at === "idle" || (isEnding(at) && at !== "notRestarted"));
}

// Milliseconds until the next look; null when none is due by itself.
export function pause(model, hidden, now) {
	if (model.busy || !(model.session || model.watch?.away))
		return null;
	if (isMoving(stage(model, now)) || (model.watch && model.link))
		return PERIOD.moving;
	return hidden ? null : model.link ? PERIOD.fault : PERIOD.idle;
}

// --- What happens

// update(model, {type, at, ...}) -> [model, effects]. Effects: {ask, args}, a call; {save} and {keep},
// for this tab and for all; {reload}; {probe}, which links lead somewhere; {focus}.
export function update(model, event) {
	const effects = [];
	return [returned(EVENTS[event.type](model, event, effects), event.at, effects), effects];
}

// What the browser saw, then the answers to what was asked, by the method's name.
const EVENTS = {
	silence: (model) => ({ ...model, silent: true }),
	signIn: onSignIn,
	signOut: (model, _, effects) => leave(model, {}, effects),
	checkAgain: (model, { at }, effects) => (mayAct(model, at) ? askServer(model, effects) : model),
	file: onFile,
	question: (model, { force, at }) => (mayAct(model, at) && model.offer ? { ...model, question: { force } } : model),
	answer: onAnswer,
	close: onClose,
	read: (model, { read }) => ({ ...model, read: Array.isArray(read) ? read : [] }),
	probed: (model, { links }) => ({ ...model, links }),
	looked: onLook,
	login: onLogin,
	check: onCheck,
	test: onTest,
	doctor: (model, { reply }) => ({ ...model, findings: readFindings(reply) }),
	start: onStart,
};

function follow(model, watch, effects) {
	if (JSON.stringify(watch) !== JSON.stringify(model.watch))
		effects.push({ save: "watch", value: watch });
	return { ...model, watch };
}

// The new firmware brings its own page, which may not fit this one: it is loaded, once.
function returned(model, at, effects) {
	if (!model.watch || model.watch.returned || !(stage(model, at) === "returned" || restarted(model)))
		return model;
	effects.push({ reload: true });
	return follow(model, { ...model.watch, returned: at }, effects);
}

// Signed out. What is followed is kept.
function leave(model, more, effects) {
	const { from, watch, read, took, session, user } = model;
	effects.push({ ask: "destroy" }, { save: "session", value: null }, { focus: "password" });
	return { ...begin({ from, watch, read, took }), user: session?.user || user, ...more };
}

function onSignIn(model, { user, password }, effects) {
	if (model.busy)
		return model;
	effects.push({ ask: "login", args: { username: user, password } });
	return { ...model, busy: "signIn", user, signInFault: null };
}

function onLogin(model, { reply, at }, effects) {
	const sid = field(reply.data, "ubus_rpc_session");
	if (!isSession(sid)) {
		return { ...model, busy: "", signInFault: say(reply.number === 6 ? "wrongPassword" : reply.fault ?? "garbled", reply) };
	}
	const session = { sid, user: model.user };
	effects.push({ save: "session", value: session }, { focus: "title" });
	return { ...model, session, fresh: true, busy: "", link: null, why: "", seen: at };
}

// --- Looks

// `status`, or when that is missing and when nobody is signed in, `access`: is anybody there? And
// once for each boot what runs there, once for each session what the account may do.
function onLook(model, { sid, status, access, board, rights, at }, effects) {
	if (sid !== model.session?.sid)
		return model; // of another session
	if (status?.fault === "denied" || (sid && access?.fault === "denied"))
		return onDenied(model, at, effects);
	if (!sid)
		return onFault(model, access.fault === "denied" ? {} : access, effects);
	const first = status.fault === "missing" ? access : status;
	if (first.fault)
		return onFault(model, first, effects);
	const facts = readStatus(table(status.data));
	if (facts.kind === "running" && !facts.state && JOB_STATES.includes(model.facts?.state))
		facts.state = "FIRMWARE_CHECK"; // a daemon that verifies answers nobody
	const known = board ? readBoard(board, facts.boot) : model.board;
	const may = rights ? table(rights.data).access : model.mayUpdate;
	if (!known || typeof may !== "boolean")
		return onFault(model, [board, rights].find((reply) => reply?.fault) ?? { fault: "garbled" }, effects);
	if (may && rights)
		effects.push({ probe: true });
	return onFacts({ ...model, facts, board: known, mayUpdate: may, plugin: !status.fault }, model.facts, at, effects);
}

// The session has ended, or another boot forgot it, or the account never had the right.
function onDenied(model, at, effects) {
	const { watch, fresh, seen } = model;
	if (fresh || !watch)
		return leave(model, fresh ? { signInFault: say("noRights") } : { why: "whyEnded" }, effects);
	const unknown = watch.away || at - seen > RECENT;
	return follow(leave(model, { why: unknown ? "" : "whyEndedUpdate" }, effects), { ...watch, away: unknown }, effects);
}

function onFault(model, { fault, number }, effects) {
	const next = { ...model, link: fault ? { fault, number } : null };
	return isAway(next) && model.watch ? follow(next, { ...model.watch, away: true }, effects) : next;
}

function onFacts(model, before, at, effects) {
	const { facts, notStarted } = model;
	const next = {
		...model, link: null, seen: at, fresh: false, silent: false,
		...(facts.kind === "nothing" && before?.kind !== "nothing" && { offer: null, checked: null }), // another offer
		...(notStarted?.key === "unsure" && facts.id !== before?.id && { notStarted: null }), // it has begun
	};
	const followed = restarted(next) ? next : watchJob(next, at, effects);
	const { checked } = followed;
	const due = !checked || (checked.fault && at - checked.at >= CHECK_AGAIN);
	return due && facts.daemon && mayAct(followed, at) ? askServer(followed, effects) : followed;
}

// Keeps what a restart will be measured by.
function watchJob(model, at, effects) {
	const { facts, watch } = model;
	const installing = jobStage(model, at) === "installing" || jobStage(model, at) === "notRestarted";
	if (!runs(facts) && !installing)
		return follow(model, null, effects);
	const old = watch && (watch.job === facts.id || watch.job === "") ? watch : newWatch(model);
	const next = { ...old, job: facts.id, installing, since: installing ? old.since ?? at : null, away: false };
	if (facts.kind === "installing")
		next.offer = facts.answered;
	return follow({ ...model, read: installing ? model.read : model.read.filter((id) => id !== facts.id) }, next, effects);
}

function newWatch({ facts, board, offer }) {
	return { job: "", boot: facts.boot, before: board, offer: { version: offer?.version, build: offer?.build } };
}

// --- Checks

function askServer(model, effects) {
	effects.push({ ask: "check" });
	return { ...model, busy: "check", notStarted: null };
}

// What is wrong with the answer of a check or a test. `status` is fwupdate-cli's.
const faultOf = ({ data, fault }) => fault ?? { 1: "noServer", 3: "noDaemon", 4: "elsewhere" }[number(table(data), "status")] ?? "garbled";

function onCheck(model, { reply, at }, effects) {
	const offer = readOffer(table(reply.data).answer);
	const fault = offer ? null : faultOf(reply);
	if (fault === "noServer")
		effects.push({ ask: "doctor" });
	return { ...model, busy: "", offer, checked: { at, fault, number: reply.number }, findings: [] };
}

function onFile(model, { path, at }, effects) {
	if (!PATH.test(path))
		return { ...model, file: say("fileBad", { path: oneLine(path) }) };
	if (!mayAct(model, at))
		return model;
	effects.push({ ask: "test", args: { file: path } });
	return { ...model, busy: "file", file: say("fileChecking", { path }) };
}

function onTest(model, { reply }) {
	const code = oneLine(field(table(reply.data).answer, "check_code"));
	const result = say(/^(0|-[2-79])$/.test(code) ? `file${code}` : "fileOther", { code });
	const { status, message } = table(reply.data);
	if (code)
		return { ...model, busy: "", file: say("fileResult", { ...model.file?.values, result }) };
	const words = [1, 2].includes(status) && oneLine(message);
	return { ...model, busy: "", file: words ? say("daemonSays", { message: words }) : say(faultOf(reply), reply) };
}

// --- The start, and the end

function markRead(model, effects) {
	const { id, takenBack } = model.facts;
	const read = [...model.read, id, ...(takenBack ? [nameOf(takenBack)] : [])].slice(-9);
	effects.push({ keep: "read", value: read });
	return { ...model, read };
}

function onAnswer(model, { yes, at }, effects) {
	const { question } = model;
	const next = { ...model, question: null, notStarted: null };
	if (!question || !yes)
		return next;
	if (!mayAct(model, at)) // another one was seen meanwhile
		return { ...next, notStarted: say("notStarted", { why: say("elsewhere") }) };
	effects.push({ ask: "start", args: { force: question.force } }, { focus: "title" });
	return follow({ ...markRead(next, effects), busy: "start" }, newWatch(model), effects);
}

// Without a status the update may have begun: the next looks tell.
function onStart(model, { reply }) {
	const { status, message } = table(reply.data);
	if (!Number.isInteger(status))
		return { ...model, busy: "", notStarted: say("unsure") };
	const why = { 3: say("noDaemon"), 4: say("elsewhere") }[status] ?? oneLine(message);
	return { ...model, busy: "", notStarted: status === 0 ? null : say("notStarted", { why }) };
}

function onClose(model, { at }, effects) {
	if (!isEnding(stage(model, at)))
		return model;
	const { watch, took } = model;
	if (stage(model, at) === "done" && watch.since)
		effects.push({ keep: "took", value: [...took, (watch.returned - watch.since) / 60000].slice(-5) });
	effects.push({ focus: "versions" });
	return follow(markRead(model, effects), null, effects);
}
