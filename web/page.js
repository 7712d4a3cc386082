// SPDX-License-Identifier: ISC
// The update page. It only watches: the update is the daemon's, and fwupdate-job keeps its answer.
// Nothing from the router is trusted to have a shape, and all of it is shown as text. "Done" is
// never guessed: it takes another boot than before, and the version that runs then.

// Every text, in the order of LANGUAGES; once if it is the same in all. {name} is filled in.
const LANGUAGES = ["en", "de"];
const TEXTS = {
	title: ["Firmware update", "Firmware-Aktualisierung"],
	signIn: ["Sign in", "Anmelden"],
	signOut: ["Sign out", "Abmelden"],
	user: ["User", "Benutzer"],
	password: ["Password", "Passwort"],
	whyEnded: ["Your session has ended. An update goes on without it.", "Ihre Sitzung ist abgelaufen. Eine Aktualisierung läuft ohne sie weiter."],
	wrongPassword: ["User and password do not fit.", "Benutzer und Passwort passen nicht zusammen."],
	inFrame: ["This page does not work inside another one.", "Diese Seite arbeitet nicht in einer anderen."],

	versions: ["Versions", "Versionen"],
	runsHere: ["Runs here", "Läuft hier"],
	onOffer: ["On offer", "Angeboten"],
	version: ["Version"],
	build: ["Build"],
	model: ["Model", "Modell"],
	unknown: ["unknown", "unbekannt"],
	notes: ["Release notes", "Versionshinweise"],
	replaced: ["Characters that cannot be shown: {count}. \ufffd stands in their place.", "Nicht darstellbare Zeichen: {count}. \ufffd steht an ihrer Stelle."],
	update: ["Update …", "Aktualisieren …"],
	checkAgain: ["Check again", "Erneut prüfen"],
	readOnly: ["This account may look, but not update.", "Dieses Konto darf ansehen, aber nicht aktualisieren."],
	noPlugin: ["fwupdate-job does not answer: no updates from here.", "fwupdate-job antwortet nicht: keine Aktualisierung von hier aus."],
	checking: ["Asking the update server …", "Der Update-Server wird gefragt …"],
	newer: ["A newer version is available.", "Eine neuere Version ist verfügbar."],
	demanded: ["The update server demands this version, newer or not.", "Der Update-Server verlangt diese Version, neuer oder nicht."],
	upToDate: ["This router is up to date.", "Dieser Router ist auf dem neuesten Stand."],
	noServer: ["The update server could not be asked, or its answer was of no use. Is the router online?", "Der Update-Server war nicht erreichbar oder antwortete unbrauchbar. Ist der Router online?"],
	noDaemon: ["The update service does not run. Restarting the router brings it back.", "Der Update-Dienst läuft nicht. Ein Neustart des Routers bringt ihn zurück."],
	elsewhere: ["An update is running already.", "Eine Aktualisierung läuft bereits."],

	anywayTitle: ["Install the same or an older build", "Denselben oder einen älteren Build installieren"],
	anywayText: ["The same build can repair a damaged system. An older one may not understand the settings.", "Derselbe Build kann ein System heilen. Ein älterer versteht vielleicht die Einstellungen nicht."],
	anyway: ["Install anyway …", "Trotzdem installieren …"],
	fileTitle: ["Check a file that is on the router", "Eine Datei auf dem Router prüfen"],
	fileLabel: ["Path of the file", "Pfad der Datei"],
	fileButton: ["Check file", "Datei prüfen"],
	fileBad: ["“{path}” is refused: a path begins with “/” and has at most 112 letters, digits and . _ / -", "„{path}“ wird abgelehnt: Ein Pfad beginnt mit „/“ und hat höchstens 112 Buchstaben, Ziffern und . _ / -"],
	fileChecking: ["Checking the file …", "Die Datei wird geprüft …"],
	file0: ["firmware for this router, and undamaged.", "Firmware für diesen Router, unbeschädigt."],
	"file-2": ["no such file, or no access.", "Datei fehlt oder ist gesperrt."],
	"file-3": ["the file cannot be examined.", "Datei nicht prüfbar."],
	"file-4": ["the file is empty, or cannot be read.", "Die Datei ist leer oder nicht lesbar."],
	"file-5": ["no firmware: neither a U-Boot image nor firmware metadata.", "Keine Firmware: weder U-Boot-Image noch Firmware-Metadaten."],
	"file-6": ["damaged firmware: the checksum of its header is wrong.", "Beschädigte Firmware: Prüfsumme des Kopfes falsch."],
	"file-7": ["damaged firmware: the checksum of its data is wrong.", "Beschädigte Firmware: Prüfsumme der Daten falsch."],
	"file-8": ["too large.", "Zu groß."],
	"file-9": ["firmware for another model.", "Firmware für ein anderes Modell."],
	"file-10": ["partition unknown.", "Partition unbekannt."],
	fileOther: ["unknown result {code}.", "Unbekanntes Ergebnis {code}."],

	questionTitle: ["Install this firmware?", "Diese Firmware installieren?"],
	questionText: ["Version {version} (build {build}) replaces version {old} (build {oldBuild}).", "Version {version} (Build {build}) ersetzt Version {old} (Build {oldBuild})."],
	settingsKept: ["The settings are kept.", "Die Einstellungen bleiben erhalten."],
	backup: ["Make a backup first", "Vorher eine Sicherung anlegen"],
	takesMinutes: ["It takes some minutes and cannot be cancelled. Then the router restarts. Do not switch it off.", "Es dauert einige Minuten und lässt sich nicht abbrechen. Dann startet der Router neu. Schalten Sie ihn nicht aus."],
	installNow: ["Install now", "Jetzt installieren"],
	cancel: ["Cancel", "Abbrechen"],
	close: ["Close", "Schließen"],

	steps: ["Download, Verify, Install, Restart, Back", "Laden, Prüfen, Installieren, Neustart, Zurück"],
	asking: ["Starting the update", "Die Aktualisierung beginnt"],
	loading: ["Downloading", "Die Firmware wird geladen"],
	sizeUnknown: ["The size of the firmware is not known yet.", "Die Größe der Firmware ist noch nicht bekannt."],
	figures: ["{percent} % · {now} of {total} MiB", "{percent} % · {now} von {total} MiB"],
	rate: [" · {rate} MiB/s"],
	verifying: ["Verifying", "Die Firmware wird geprüft"],
	verifyingText: ["Checksums and model are compared.", "Prüfsummen und Modell werden verglichen."],
	installing: ["Installing", "Die Firmware wird installiert"],
	installingText: ["The firmware is good. The old system answers until the router restarts. Do not switch it off.", "Die Firmware ist gut. Das alte System antwortet, bis der Router neu startet. Schalten Sie ihn nicht aus."],
	restarting: ["Restarting", "Der Router startet neu"],
	restartingText: ["The router does not answer: it installs and starts again. This page keeps looking.", "Der Router antwortet nicht: Er installiert und startet neu. Diese Seite sucht weiter."],
	startingText: ["The router answers, but not all of its services do yet.", "Der Router antwortet, aber noch nicht alle seine Dienste."],
	longAway: ["It has been away for {minutes} minutes. Perhaps it has another address now, or a certificate that this browser does not know: open the page anew.", "Er ist seit {minutes} Minuten weg. Vielleicht hat er jetzt eine andere Adresse oder ein Zertifikat, das dieser Browser nicht kennt: Öffnen Sie die Seite neu."],
	returned: ["The router answers again", "Der Router antwortet wieder"],
	returnedText: ["Sign in, and this page shows whether the new version runs.", "Melden Sie sich an; dann zeigt diese Seite, ob die neue Version läuft."],
	notRestarted: ["The router did not restart", "Der Router hat nicht neu gestartet"],
	notRestartedText: ["The installer got the firmware {minutes} minutes ago, and the old system is still there. Probably it refused the firmware: see the system log. Restart the router before you try again: the file takes up memory.", "Das Installationsprogramm bekam die Firmware vor {minutes} Minuten, und das alte System ist noch da. Wahrscheinlich wurde sie abgelehnt: siehe Systemprotokoll. Starten Sie den Router vor einem neuen Versuch neu: Die Datei belegt Speicher."],
	backNew: ["Done: the offered version runs", "Fertig: Die angebotene Version läuft"],
	backNewText: ["The router has restarted. It runs version {version} (build {build}).", "Der Router hat neu gestartet. Auf ihm läuft Version {version} (Build {build})."],
	backOld: ["The router still runs the old version", "Auf dem Router läuft noch die alte Version"],
	backOldText: ["It has restarted and runs version {version} (build {build}) as before. Build {offered} was not installed, or did not start.", "Nach dem Neustart läuft Version {version} (Build {build}) wie zuvor. Build {offered} wurde nicht installiert oder startete nicht."],
	backOther: ["The router runs another version", "Auf dem Router läuft eine andere Version"],
	backOtherText: ["It has restarted and runs version {version} (build {build}). Build {offered} was on offer.", "Auf ihm läuft nach dem Neustart Version {version} (Build {build}). Angeboten war Build {offered}."],

	nothing: ["There was nothing to install", "Es gab nichts zu installieren"],
	lost: ["The answer of the update was lost", "Die Antwort der Aktualisierung ging verloren"],
	lostText: ["The update service was restarted. What became of the update is unknown: see which version runs here, then try again.", "Der Update-Dienst wurde neu gestartet. Was aus der Aktualisierung wurde, ist unbekannt: Sehen Sie nach, welche Version läuft, dann versuchen Sie es erneut."],
	failed: ["The update failed", "Die Aktualisierung ist fehlgeschlagen"],
	failed2: ["The firmware could not be downloaded. Nothing was changed. Is the router online, with enough free memory?", "Die Firmware ließ sich nicht laden. Nichts wurde verändert. Ist der Router online, mit genug freiem Speicher?"],
	failed3: ["The firmware is damaged, or made for another model. Nothing was changed.", "Die Firmware ist beschädigt oder für ein anderes Modell. Nichts wurde verändert."],
	failed6: ["Another update is running. If none is to be seen, restart the router.", "Eine andere Aktualisierung läuft. Ist keine zu sehen, starten Sie den Router neu."],
	failedOther: ["It ended with the unknown code {code}.", "Sie endete mit dem unbekannten Code {code}."],
	daemonSays: ["The router says: {message}", "Der Router sagt: {message}"],
	notStarted: ["Not started. {why}", "Nicht gestartet. {why}"],
	unsure: ["No clear answer has come. If the update has begun, it appears here.", "Es kam keine klare Antwort. Hat die Aktualisierung begonnen, erscheint sie hier."],
	foreign: ["Somebody else started this update.", "Diese Aktualisierung hat jemand anders gestartet."],
	pageOnlyWatches: ["This page only watches. Closing it stops nothing.", "Diese Seite sieht nur zu. Sie zu schließen hält nichts an."],

	away: ["The router does not answer. This page keeps trying.", "Der Router antwortet nicht. Diese Seite versucht es weiter."],
	late: ["The router did not answer in time.", "Der Router hat nicht rechtzeitig geantwortet."],
	garbled: ["This page does not understand the router's answer.", "Diese Seite versteht die Antwort des Routers nicht."],
	denied: ["This account may not do that.", "Dieses Konto darf das nicht."],
	missing: ["A service does not run on the router.", "Ein Dienst läuft auf dem Router nicht."],
	bus: ["The router could not do that (error {status}). Try again, or restart it.", "Das gelang dem Router nicht (Fehler {status}). Versuchen Sie es erneut oder starten Sie ihn neu."],
};

const NO_SESSION = "0".repeat(32);
const POLL_LIMIT = 15; // seconds; the daemon is silent for ten at a time
const LONG_LIMIT = 75; // for what the gateway itself gives up after 60
const SILENCE = 2000; // milliseconds
const PERIOD = { job: 1000, restart: 2000, idle: 10000 }; // milliseconds between two looks
const RESTART_LIMIT = 3; // minutes that an installer may take before the router goes away
const AWAY_LIMIT = 10; // minutes
const PATH = /^\/[\w./-]{1,111}$/;

// The daemon's stages of a job; all others are of a query.
const JOB_STATES = ["FIRMWARE_CONNECT", "FIRMWARE_CHECK", "FIRMWARE_UPDATE"];
const STEP_OF = { asking: 0, loading: 0, verifying: 1, installing: 2, notRestarted: 2, restarting: 3, starting: 3, returned: 4 };
const OPEN_STAGES = ["idle", "failed", "nothing", "lost", "notRestarted", "back"]; // nothing is under way

const byId = (id) => document.getElementById(id);
const language = navigator.languages.map((name) => name.slice(0, 2)).find((name) => LANGUAGES.includes(name)) ?? "en";

// --- Texts

// What is filled in is fenced off, so that its writing direction stays its own.
function text(key, values = {}) {
	const one = TEXTS[key][LANGUAGES.indexOf(language)] ?? TEXTS[key][0];
	return one.replace(/\{(\w+)\}/g, (_, name) => `\u2068${values[name]}\u2069`);
}

function mib(bytes) {
	return (bytes / 1024 / 1024).toLocaleString(language, { minimumFractionDigits: 1, maximumFractionDigits: 1 });
}

// Controls, marks that change the writing direction, and what is no character become U+FFFD.
const UNSHOWABLE = /[\0-\x08\x0b-\x1f\x7f-\x9f\u061c\u200b\u200e\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb\u{e0000}-\u{e007f}]|\p{Cs}/gu;

function shown(value) {
	return typeof value === "string" ? value.replace(/\r\n/g, "\n").replace(UNSHOWABLE, "\ufffd") : "";
}

const oneLine = (value) => shown(value).replace(/\s+/g, " ").trim();

const known = (value) => oneLine(value) || text("unknown");

// Rewrites only what changed: screen readers speak every change.
function setText(id, value) {
	const element = byId(id);
	if (element.textContent !== value)
		element.textContent = value;
}

function show(id, yes) {
	byId(id).hidden = !yes;
}

function setNote(id, value) {
	setText(id, value);
	show(id, value);
}

// --- What outlives a reload, in this tab

function load(name) {
	try {
		return JSON.parse(sessionStorage.getItem(`fwupdate.${name}`));
	} catch {
		return null;
	}
}

function save(name, value) {
	page[name] = value;
	try {
		sessionStorage.setItem(`fwupdate.${name}`, JSON.stringify(value));
	} catch {
		// Without storage a reload asks for the password again.
	}
}

const page = {
	session: load("session"), // {sid, user}
	watch: load("watch"), // the update followed, see follow
	closed: load("closed"), // the job whose outcome was read
	why: "", // above the sign-in form
	fault: "", // of the last look
	awaySince: null, // by performance.now(), while nothing answers
	wasAway: false, // since the installation began
	fresh: false, // signed in since
	seenSince: 0, // when this page first saw the installation
	mayUpdate: false,
	plugin: true,
	daemon: true,
	job: null, // see readJob
	state: null, // the daemon's
	silent: false, // it does not say
	board: null, // what runs here: {model, version, build}
	check: null, // the last one: {data} or {fault}
	busy: "", // the button that is at work: check, file, start
	verdict: null, // on the restart: {key, good, offered}
	rate: null, // see rateText
	startFault: "",
	doubt: null, // the job before a start that was not answered clearly: another one settles it
};

const isTable = (value) => typeof value === "object" && value !== null && !Array.isArray(value);
const field = (table, name) => (isTable(table) && typeof table[name] === "string" ? table[name] : "");

// --- Calls

// Returns {data} or {fault}; a fault is a key of TEXTS.
async function call(object, method, args = {}, limit = POLL_LIMIT, sid = page.session?.sid) {
	const stop = new AbortController();
	const timer = setTimeout(() => stop.abort(), limit * 1000);
	const request = { jsonrpc: "2.0", id: 1, method: "call", params: [sid ?? NO_SESSION, object, method, args] };
	let fault = "away";
	try {
		const response = await fetch("/ubus", {
			method: "POST", body: JSON.stringify(request), signal: stop.signal,
			credentials: "omit", redirect: "error",
		});
		fault = "garbled"; // something is there
		return understood(response.ok && JSON.parse(await response.text()));
	} catch {
		return { fault: stop.signal.aborted ? "late" : fault };
	} finally {
		clearTimeout(timer);
	}
}

function understood(reply) {
	const { error, result } = isTable(reply) ? reply : {};
	if (isTable(error))
		return { fault: { "-32002": "denied", "-32000": "missing", "-32003": "late" }[Number(error.code)] ?? "garbled" };
	const [status, data] = Array.isArray(result) ? result : [];
	if (!Number.isInteger(status))
		return { fault: "garbled" };
	if (status !== 0)
		return { fault: { 4: "missing", 7: "late" }[status] ?? "bus", status };
	return { data: isTable(data) ? data : {} };
}

const mayCall = (object, method) => call("session", "access", { scope: "ubus", object, function: method });

// --- Sessions

async function signIn(event) {
	event.preventDefault();
	setNote("sign-in-fault", "");
	const user = byId("user").value;
	const reply = await call("session", "login", { username: user, password: byId("password").value }, POLL_LIMIT, NO_SESSION);
	const sid = field(reply.data, "ubus_rpc_session");
	if (!/^[0-9a-f]{32}$/.test(sid))
		return setNote("sign-in-fault", text(reply.status === 6 ? "wrongPassword" : reply.fault ?? "garbled", reply));
	byId("password").value = "";
	Object.assign(page, { board: null, check: null, fault: "", awaySince: null, fresh: true });
	save("session", { sid, user });
	await looking; // one that began without this session says nothing
	await look();
	focusTitle();
}

function focusTitle() {
	byId(byId("job").hidden ? "versions-title" : "job-title").focus();
}

function endSession(why) {
	page.why = why;
	byId("user").value = page.session?.user ?? "";
	save("session", null);
	byId("question").close();
	render();
	byId("password").focus();
}

// --- Looking at the router

async function poll() {
	if (page.session)
		await pollSignedIn();
	else if (page.watch?.installing)
		// Anybody may ask this: is anybody there?
		noteAnswer(await mayCall("fwupdate", "state"));
}

function noteAnswer({ fault = "" }) {
	const away = fault === "away" || fault === "late";
	page.fault = fault;
	page.awaySince = away ? page.awaySince ?? performance.now() : null;
	page.wasAway ||= away && page.watch?.installing;
}

async function pollSignedIn() {
	let reply = await call("fwupdate-job", "status");
	const missing = reply.fault === "missing";
	const gone = missing && page.watch?.installing && !page.fresh;
	if (gone) // for the restart, or for good: does the session still hold?
		reply = await mayCall("fwupdate", "state");
	if (!page.session)
		return; // signed out meanwhile
	noteAnswer(reply);
	if (reply.fault === "denied")
		return endSession("whyEnded");
	if (gone)
		page.fault ||= "missing";
	if (gone || (reply.fault && !missing))
		return;
	page.fault = "";
	page.plugin = !missing;
	const before = page.job?.kind;
	page.job = readJob(reply.data);
	if (page.job.kind === "nothing" && before !== "nothing")
		page.check = null; // another offer than the one shown
	if (page.doubt !== null && page.doubt !== page.job.id)
		Object.assign(page, { startFault: "", doubt: null });
	if (!page.board && !await readBoard())
		return;
	judgeRestart();
	if (!page.watch?.installing && !page.busy)
		await readState();
	follow();
}

// What has the right shape in fwupdate-job's answer. `kind`: none, running, lost, refused, or what
// the daemon's answer came to: installing, nothing, failed, busy.
function readJob(data) {
	const update = isTable(data?.update) ? data.update : {};
	const kind = field(update, "job") === "answered" ? field(update, "result") : field(update, "job");
	const age = data?.now - update.ended; // seconds since the answer, by the router's clock
	return {
		kind: ["running", "lost", "refused", "installing", "nothing", "failed", "busy"].includes(kind) ? kind : "none",
		id: Number.isFinite(update.started) ? String(update.started) : "",
		boot: field(data, "boot"),
		age: age > 0 ? age : 0,
		answer: update.answer,
		status: update.status,
	};
}

// Kept for the session, so nothing is taken from an answer that is none.
async function readBoard() {
	const board = await call("system", "board");
	const rights = await mayCall("fwupdate-job", "start");
	const release = board.data?.release;
	const access = rights.data?.access;
	if (!isTable(release) || typeof access !== "boolean") {
		page.fault = board.fault ?? rights.fault ?? "garbled";
		return false;
	}
	page.mayUpdate = access;
	page.board = {
		model: board.data.model,
		version: oneLine(field(release, "revision") || field(release, "version")),
		build: oneLine(field(release, "builddate")),
	};
	return true;
}

async function readState() {
	const timer = setTimeout(() => {
		page.silent = true;
		render();
	}, SILENCE);
	const reply = await call("fwupdate", "state");
	clearTimeout(timer);
	if (reply.fault && reply.fault !== "missing")
		return; // busy with a query or a check, or not understood: what was seen before still holds
	page.silent = false;
	page.daemon = !reply.fault;
	page.state = reply.data ?? null;
}

const stateName = () => field(page.state, "state");
const jobRuns = () => page.job?.kind === "running" || JOB_STATES.includes(stateName());

// Keeps what a restart will be measured by.
function follow() {
	const { job, watch, board } = page;
	const open = job.id !== page.closed;
	const installing = open && (job.kind === "installing" || (job.kind === "none" && stateName() === "WAIT_DELAY"));
	if (!installing && !jobRuns()) {
		if (watch)
			save("watch", null);
		return;
	}
	const same = watch?.job === job.id;
	if (same && watch.installing === installing)
		return;
	const offer = { version: oneLine(job.answer?.version), build: oneLine(job.answer?.buildtime) };
	save("watch", { job: job.id, boot: job.boot, installing, before: same ? watch.before : board, offer });
	Object.assign(page, { verdict: null, wasAway: false, fresh: false, seenSince: performance.now() });
}

// With the board read: has the router restarted, and what does it run now?
function judgeRestart() {
	const { watch, job, board } = page;
	if (!watch?.installing)
		return;
	const { before, offer } = watch;
	const changed = board.version !== before.version || board.build !== before.build;
	const restarted = watch.boot && job.boot ? watch.boot !== job.boot : changed || (page.fresh && page.wasAway);
	if (!restarted) {
		page.wasAway = false;
		return;
	}
	const good = board.build ? Number(board.build) === Number(offer.build) : changed && board.version === offer.version;
	page.verdict = { key: good ? "backNew" : changed ? "backOther" : "backOld", good, offered: known(offer.build) };
	save("watch", null);
}

function minutesInstalling() {
	return Math.floor(Math.max(page.job?.age ?? 0, (performance.now() - page.seenSince) / 1000) / 60);
}

// The one word for what is going on; everything shown follows from it.
function stage() {
	const { watch, job } = page;
	if (watch?.installing) {
		if (page.awaySince !== null)
			return "restarting";
		if (page.fault === "missing")
			return "starting";
		if (!page.session)
			return page.wasAway ? "returned" : "installing";
		return page.job && minutesInstalling() >= RESTART_LIMIT ? "notRestarted" : "installing";
	}
	if (!page.session)
		return "idle";
	if (page.verdict)
		return "back";
	if (jobRuns())
		return jobStage();
	if (!job || job.kind === "none" || job.kind === "installing" || job.id === page.closed)
		return "idle";
	return job.kind === "lost" || job.kind === "nothing" ? job.kind : "failed";
}

function jobStage() {
	if (stateName() === "FIRMWARE_CONNECT")
		return page.silent ? "verifying" : "loading"; // the daemon answers nobody while it verifies
	return ["FIRMWARE_CHECK", "FIRMWARE_UPDATE", "WAIT_DELAY"].includes(stateName()) ? "verifying" : "asking";
}

// --- What the buttons do

const mayAct = () => page.session && page.board && !page.busy && OPEN_STAGES.includes(stage());

async function act(name, action) {
	if (!mayAct())
		return;
	Object.assign(page, { busy: name, startFault: "" });
	render();
	await action();
	page.busy = "";
	await look();
}

// A check or a test during a job would overwrite what the job shows: ask first.
async function callWhenIdle(method, args) {
	await readState();
	return jobRuns() ? { fault: "elsewhere" } : call("fwupdate", method, args, LONG_LIMIT);
}

async function checkServer() {
	const reply = await callWhenIdle("check", {});
	page.daemon = reply.fault !== "missing";
	page.check = reply.data && field(reply.data, "error_code") === "" ? { fault: "garbled" } : reply;
}

async function checkFile(path) {
	setText("file-result", text("fileChecking"));
	const reply = await callWhenIdle("test", { file: path });
	setText("file-result", reply.fault ? text(reply.fault, reply) : `${path}: ${fileSentence(reply.data)}`);
}

function fileSentence(reply) {
	const code = field(reply, "check_code");
	return /^(0|-[2-9]|-10)$/.test(code) ? text(`file${code}`) : text("fileOther", { code: oneLine(code) });
}

function submitFile(event) {
	event.preventDefault();
	const path = byId("file").value;
	if (PATH.test(path))
		act("file", () => checkFile(path));
	else
		setText("file-result", text("fileBad", { path: oneLine(path) }));
}

function ask(force) {
	const { board, check } = page;
	setText("question-text", text("questionText", {
		version: known(check.data.version), build: oneLine(check.data.buildtime),
		old: known(board.version), oldBuild: known(board.build),
	}));
	byId("yes").onclick = () => {
		byId("question").close();
		if (mayAct())
			act("start", () => start(force));
		else // another one was seen meanwhile
			page.startFault = text("notStarted", { why: text("elsewhere") });
		render();
	};
	byId("question").showModal();
}

async function start(force) {
	page.verdict = null;
	const before = page.job.id;
	const { data } = await call("fwupdate-job", "start", { force });
	const ended = data?.status; // of fwupdate-cli; without it the update may have begun: the next looks tell
	page.doubt = Number.isInteger(ended) ? null : before;
	const why = { 3: text("noDaemon"), 4: text("elsewhere") }[ended] ?? oneLine(data?.message);
	page.startFault = ended === 0 ? "" : page.doubt === null ? text("notStarted", { why }) : text("unsure");
	page.busy = "";
	await look();
	focusTitle();
}

function closeJob() {
	if (!page.verdict)
		save("closed", page.job.id);
	save("watch", null);
	page.verdict = null;
	render();
	byId("versions-title").focus();
	plan();
}

// --- Showing

function render() {
	const now = stage();
	const waiting = now === "restarting" || now === "starting";
	const inside = page.session && page.board;
	show("sign-in", !page.session && !waiting);
	show("who", page.session);
	show("versions", inside);
	setText("account", shown(page.session?.user));
	setNote("sign-in-why", page.why && now !== "returned" ? text(page.why) : "");
	setNote("connection", page.session && page.fault && !waiting ? text(page.fault, { status: "?" }) : page.startFault);
	renderJob(now);
	if (inside)
		renderVersions();
}

function renderJob(now) {
	show("job", now !== "idle");
	const title = now === "idle" ? "" : text({ back: page.verdict?.key, starting: "restarting" }[now] ?? now);
	setText("job-title", title);
	if (now === "idle")
		return;
	const good = now === "back" && page.verdict.good;
	const open = OPEN_STAGES.includes(now);
	byId("job-title").className = good ? "good" : open && now !== "nothing" ? "bad" : "";
	renderSteps(good ? Infinity : STEP_OF[now]);
	renderBar(now);
	setText("job-text", jobText(now));
	setNote("job-detail", now === "failed" ? daemonWords() : "");
	setNote("job-hint", jobHint(now));
	show("job-stays", !open && now !== "returned");
	show("job-buttons", open);
}

function renderSteps(at) {
	show("steps", at !== undefined);
	[...byId("steps").children].forEach((item, index) => {
		item.className = index < at ? "over" : "";
		item.ariaCurrent = index === at ? "step" : null;
	});
}

function renderBar(now) {
	const bar = byId("progress");
	const { total, now: got } = now === "loading" && isTable(page.state.progress) ? page.state.progress : {};
	show("bar", now === "loading" || now === "verifying");
	if (total > 0 && got >= 0) {
		bar.value = got / total * 100;
		setText("figures", text("figures", { percent: Math.floor(bar.value), now: mib(got), total: mib(total) }) + rateText(got));
		return;
	}
	if (now === "verifying")
		bar.value = 100;
	else
		bar.removeAttribute("value"); // moves, without saying how far
	page.rate = null;
	setText("figures", "");
}

// Since this page first saw this download: one move of the counter says little.
function rateText(got) {
	const time = performance.now();
	if (!page.rate || got < page.rate.got)
		page.rate = { start: got, since: time };
	page.rate.got = got;
	const perSecond = (got - page.rate.start) / (time - page.rate.since) * 1000;
	return perSecond ? text("rate", { rate: mib(perSecond) }) : "";
}

function jobText(now) {
	const { job, board } = page;
	if (now === "back")
		return text(`${page.verdict.key}Text`, { version: known(board.version), build: known(board.build), offered: page.verdict.offered });
	if (now === "loading")
		return isTable(page.state.progress) ? "" : text("sizeUnknown");
	if (now === "asking" || now === "nothing")
		return text(now === "asking" ? "checking" : "upToDate");
	if (now !== "failed")
		return text(`${now}Text`, { minutes: minutesInstalling() });
	const code = field(job.answer, "error_code");
	if (job.kind === "refused")
		return text("bus", { status: oneLine(String(job.status)) });
	if (code === "1")
		return text("noServer");
	return ["2", "3", "6"].includes(code) ? text(`failed${code}`) : text("failedOther", { code: oneLine(code) });
}

// The daemon's own words, when it has more to say than the code.
function daemonWords() {
	const message = oneLine(field(page.job.answer, "error_message"));
	return message === "" || message === "No Error" ? "" : text("daemonSays", { message });
}

function jobHint(now) {
	const away = Math.floor((performance.now() - page.awaySince) / 60000);
	if (now === "restarting" && away >= AWAY_LIMIT)
		return text("longAway", { minutes: away });
	return jobRuns() && page.job.kind !== "running" ? text("foreign") : "";
}

function renderVersions() {
	const { board, check, mayUpdate, plugin } = page;
	const reply = field(check?.data, "error_code") === "0" ? check.data : null;
	const due = field(reply, "need_update") === "1";
	for (const name of ["version", "build", "model"])
		setText(`here-${name}`, known(board[name]));
	setText("offer-version", reply ? known(reply.version) : "–");
	setText("offer-build", reply ? oneLine(reply.buildtime) : "–");
	setText("verdict", verdictText(reply, due));
	renderNotes(reply);
	show("version-buttons", mayUpdate);
	show("update", plugin && due);
	show("anyway-part", mayUpdate && plugin && reply && !due);
	show("file-part", mayUpdate);
	setNote("read-only", !plugin ? text("noPlugin") : mayUpdate ? "" : text("readOnly"));
	for (const id of ["update", "check", "anyway", "file-button"])
		byId(id).disabled = !mayAct();
}

function verdictText(reply, due) {
	const { check, board } = page;
	if (page.busy === "check")
		return text("checking");
	if (!page.daemon)
		return text("noDaemon");
	if (!check)
		return "";
	if (!reply)
		return check.fault ? text(check.fault, check) : text("noServer");
	if (!due)
		return text("upToDate");
	return text(Number(field(reply, "buildtime")) > Number(board.build) ? "newer" : "demanded");
}

function renderNotes(reply) {
	const notes = shown(reply?.releasenotes).trim();
	const replaced = (notes + shown(reply?.version) + shown(reply?.buildtime)).split("\ufffd").length - 1;
	setText("notes", notes);
	show("notes-part", notes || replaced);
	setNote("notes-replaced", replaced ? text("replaced", { count: replaced }) : "");
}

// --- Running

let looking = null;
let timer = null;

// One look at a time: whoever asks meanwhile waits for it.
function look() {
	clearTimeout(timer);
	looking ??= poll().finally(() => {
		looking = null;
		render();
		plan();
	});
	return looking;
}

function plan() {
	clearTimeout(timer);
	const watching = page.watch || !OPEN_STAGES.includes(stage());
	if (!watching && page.daemon && !page.check)
		act("check", checkServer); // so that both sides stand there without a click
	// A page that nobody looks at and that watches nothing lets its session end.
	if (!watching && document.hidden)
		return;
	timer = setTimeout(look, page.watch?.installing ? PERIOD.restart : jobRuns() || page.fault ? PERIOD.job : PERIOD.idle);
}

function begin() {
	document.documentElement.lang = language;
	document.title = text("title");
	for (const element of document.querySelectorAll("[data-text]"))
		element.textContent = text(element.dataset.text);
	if (window.top !== window.self)
		return setNote("connection", text("inFrame"));
	byId("steps").append(...text("steps").split(", ").map((textContent) => Object.assign(document.createElement("li"), { textContent })));
	byId("sign-in-form").onsubmit = signIn;
	byId("file-form").onsubmit = submitFile;
	byId("sign-out").onclick = () => call("session", "destroy").then(() => endSession(""));
	byId("check").onclick = () => act("check", checkServer);
	byId("update").onclick = () => ask(false);
	byId("anyway").onclick = () => ask(true);
	byId("no").onclick = () => byId("question").close();
	byId("close-job").onclick = closeJob;
	document.onvisibilitychange = () => document.hidden || look();
	render();
	look();
	if (!page.session)
		byId("user").focus();
}

begin();
