// SPDX-License-Identifier: ISC
// The update page. It only watches: the update belongs to the daemon, and its answer is kept on the
// router by fwupdate-job, so that a reload, a second tab or a lost session loses nothing.
//
// Nothing that comes from the router is trusted to have a shape, and all of it is shown as text.
// "Done" is never guessed: it takes a boot other than the one before, and the version that runs.

// Every text, in the order of LANGUAGES; one that is the same in all of them stands once. {name} is
// filled in.
const LANGUAGES = ["en", "de"];
const TEXTS = {
	title: ["Firmware update", "Firmware-Aktualisierung"],
	signIn: ["Sign in", "Anmelden"],
	signOut: ["Sign out", "Abmelden"],
	user: ["User", "Benutzer"],
	password: ["Password", "Passwort"],
	whyFirst: ["Use an account of this router.", "Mit einem Konto dieses Routers."],
	whyEnded: ["Your session has ended.", "Ihre Sitzung ist abgelaufen."],
	whyEndedJob: ["Your session has ended. The update does not need it; sign in to see how far it is.", "Ihre Sitzung ist abgelaufen. Die Aktualisierung braucht sie nicht; melden Sie sich an, um zu sehen, wie weit sie ist."],
	wrongPassword: ["User and password do not fit.", "Benutzer und Passwort passen nicht zusammen."],
	inFrame: ["This page works only by itself, not inside another page.", "Diese Seite arbeitet nur für sich, nicht innerhalb einer anderen."],

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
	noPlugin: ["fwupdate-job does not answer on this router: updates cannot be started or followed from here.", "fwupdate-job antwortet auf diesem Router nicht: Von hier aus lassen sich Aktualisierungen weder starten noch verfolgen."],
	checking: ["Asking the update server …", "Der Update-Server wird gefragt …"],
	newer: ["A newer version is available.", "Eine neuere Version ist verfügbar."],
	demanded: ["The update server asks for this version, although it is not newer.", "Der Update-Server verlangt diese Version, obwohl sie nicht neuer ist."],
	upToDate: ["This router is up to date.", "Dieser Router ist auf dem neuesten Stand."],
	noServer: ["The update server could not be asked, or its answer was of no use. Is the router online?", "Der Update-Server war nicht erreichbar oder seine Antwort unbrauchbar. Ist der Router online?"],
	noDaemon: ["The update service does not run on this router. A restart of the router brings it back.", "Der Update-Dienst läuft auf diesem Router nicht. Ein Neustart des Routers bringt ihn zurück."],
	elsewhere: ["Not now: an update is running.", "Nicht jetzt: Eine Aktualisierung läuft."],

	anywayTitle: ["Install the same or an older build", "Denselben oder einen älteren Build installieren"],
	anywayText: ["What is on offer is not newer than what runs. The same build again can repair a damaged system. An older one may not understand the settings.", "Das Angebot ist nicht neuer als das, was läuft. Derselbe Build kann ein beschädigtes System heilen. Ein älterer versteht vielleicht die Einstellungen nicht."],
	anyway: ["Install anyway …", "Trotzdem installieren …"],
	fileTitle: ["Check a file that is on the router", "Eine Datei auf dem Router prüfen"],
	fileLabel: ["Path of the file", "Pfad der Datei"],
	fileButton: ["Check file", "Datei prüfen"],
	fileBad: ["“{path}” cannot be checked: a path starts with “/”, has at most 112 characters, and only letters, digits and . _ / -", "„{path}“ ist nicht prüfbar: Ein Pfad beginnt mit „/“, hat höchstens 112 Zeichen und nur Buchstaben, Ziffern und . _ / -"],
	fileChecking: ["Checking the file …", "Die Datei wird geprüft …"],
	"file0": ["firmware for this router, and undamaged.", "Firmware für diesen Router, unbeschädigt."],
	"file-2": ["the file cannot be opened.", "Die Datei lässt sich nicht öffnen."],
	"file-3": ["there is no such file, or it cannot be examined.", "Die Datei gibt es nicht oder sie lässt sich nicht untersuchen."],
	"file-4": ["the file is empty, or cannot be read.", "Die Datei ist leer oder nicht lesbar."],
	"file-5": ["no firmware: neither a U-Boot image nor a file with firmware metadata.", "Keine Firmware: weder ein U-Boot-Image noch eine Datei mit Firmware-Metadaten."],
	"file-6": ["damaged firmware: the checksum of its header is wrong.", "Beschädigte Firmware: Die Prüfsumme ihres Kopfes ist falsch."],
	"file-7": ["damaged firmware: the checksum of its data is wrong.", "Beschädigte Firmware: Die Prüfsumme ihrer Daten ist falsch."],
	"file-8": ["this firmware is too large.", "Diese Firmware ist zu groß."],
	"file-9": ["firmware for another model.", "Firmware für ein anderes Modell."],
	"file-10": ["the flash partition is not known.", "Die Flash-Partition ist nicht bekannt."],
	fileUnset: ["the router was given no file.", "Dem Router wurde keine Datei genannt."],
	fileOther: ["unknown result {code}.", "Unbekanntes Ergebnis {code}."],

	questionTitle: ["Install this firmware?", "Diese Firmware installieren?"],
	questionText: ["Version {version} (build {build}) replaces version {old} (build {oldBuild}).", "Version {version} (Build {build}) ersetzt Version {old} (Build {oldBuild})."],
	settingsKept: ["The settings are kept.", "Die Einstellungen bleiben erhalten."],
	backup: ["Make a backup first", "Vorher eine Sicherung anlegen"],
	takesMinutes: ["It takes some minutes, and the router restarts. Do not switch it off.", "Es dauert einige Minuten, und der Router startet neu. Schalten Sie ihn nicht aus."],
	noCancel: ["It cannot be cancelled.", "Es lässt sich nicht abbrechen."],
	installNow: ["Install now", "Jetzt installieren"],
	cancel: ["Cancel", "Abbrechen"],
	close: ["Close", "Schließen"],

	stepLoad: ["Download", "Laden"],
	stepVerify: ["Verify", "Prüfen"],
	stepInstall: ["Install", "Installieren"],
	stepRestart: ["Restart", "Neustart"],
	stepBack: ["Back", "Zurück"],

	asking: ["Starting the update", "Die Aktualisierung beginnt"],
	askingText: ["The router asks the update server.", "Der Router fragt den Update-Server."],
	loading: ["Downloading", "Die Firmware wird geladen"],
	loadingText: ["The router downloads the firmware into its memory.", "Der Router lädt die Firmware in seinen Speicher."],
	sizeUnknown: ["The server has not said how large the firmware is.", "Der Server hat nicht gesagt, wie groß die Firmware ist."],
	figures: ["{percent} % · {now} of {total} MiB", "{percent} % · {now} von {total} MiB"],
	rate: [" · {rate} MiB/s"],
	verifying: ["Verifying", "Die Firmware wird geprüft"],
	verifyingText: ["The download is complete. Checksums and model are compared.", "Die Firmware ist geladen. Prüfsummen und Modell werden verglichen."],
	installing: ["Installing", "Die Firmware wird installiert"],
	installingText: ["The firmware is good; the installer has it. The old system still answers until the router restarts. Do not switch it off.", "Die Firmware ist gut; das Installationsprogramm hat sie. Noch antwortet das alte System, bis der Router neu startet. Schalten Sie ihn nicht aus."],
	restarting: ["Restarting", "Der Router startet neu"],
	restartingText: ["The router does not answer: it installs and starts again. This page looks for it every two seconds.", "Der Router antwortet nicht: Er installiert und startet neu. Diese Seite sucht ihn alle zwei Sekunden."],
	starting: ["Restarting", "Der Router startet neu"],
	startingText: ["The router answers, but not all of its services do yet.", "Der Router antwortet, aber noch nicht alle seine Dienste."],
	longAway: ["It has been away for {minutes} minutes. Perhaps it is back under another address, or with a certificate that this browser does not know: open the page anew, or look for the router's address.", "Er ist seit {minutes} Minuten weg. Vielleicht ist er unter einer anderen Adresse zurück oder mit einem Zertifikat, das dieser Browser nicht kennt: Öffnen Sie die Seite neu oder suchen Sie die Adresse des Routers."],
	returned: ["The router answers again", "Der Router antwortet wieder"],
	returnedText: ["Sign in, and this page shows whether the new version runs.", "Melden Sie sich an; dann zeigt diese Seite, ob die neue Version läuft."],
	notRestarted: ["The router did not restart", "Der Router hat nicht neu gestartet"],
	notRestartedText: ["The installer got the firmware {minutes} minutes ago, and the old system is still there. Probably the installer refused it, and nothing was changed; the system log may say why. The file still takes up memory: restart the router before you try again.", "Das Installationsprogramm bekam die Firmware vor {minutes} Minuten, und das alte System ist noch da. Wahrscheinlich wurde sie abgelehnt und nichts verändert; das Systemprotokoll sagt vielleicht, warum. Die Datei belegt noch Speicher: Starten Sie den Router neu, bevor Sie es noch einmal versuchen."],
	backNew: ["Done: the offered version runs", "Fertig: Die angebotene Version läuft"],
	backNewText: ["The router has restarted. It runs version {version} (build {build}).", "Der Router hat neu gestartet. Auf ihm läuft Version {version} (Build {build})."],
	backOld: ["The router still runs the old version", "Auf dem Router läuft noch die alte Version"],
	backOldText: ["It has restarted and runs version {version} (build {build}), as before. Build {offered} was not installed, or did not start.", "Er hat neu gestartet und führt Version {version} (Build {build}) aus wie zuvor. Build {offered} wurde nicht installiert oder startete nicht."],
	backOther: ["The router runs another version", "Auf dem Router läuft eine andere Version"],
	backOtherText: ["It has restarted and runs version {version} (build {build}). Build {offered} was on offer.", "Er hat neu gestartet und führt Version {version} (Build {build}) aus. Angeboten war Build {offered}."],

	nothing: ["There was nothing to install", "Es gab nichts zu installieren"],
	nothingText: ["The update server has nothing newer for this router.", "Der Update-Server hat nichts Neueres für diesen Router."],
	lost: ["The answer of the update was lost", "Die Antwort der Aktualisierung ging verloren"],
	lostText: ["The update service or the bus was restarted meanwhile. Whether the firmware was installed, nobody can say. See which version runs here, then try again.", "Inzwischen wurde der Update-Dienst oder der Bus neu gestartet. Ob die Firmware installiert wurde, kann niemand sagen. Sehen Sie nach, welche Version hier läuft, und versuchen Sie es erneut."],
	failed: ["The update failed", "Die Aktualisierung ist fehlgeschlagen"],
	failed2: ["The firmware could not be downloaded. Nothing was changed. Is the router online, and is enough memory free?", "Die Firmware ließ sich nicht laden. Nichts wurde verändert. Ist der Router online und genug Speicher frei?"],
	failed3: ["The firmware did not pass its check: it is damaged, or for another model. Nothing was changed.", "Die Firmware hat die Prüfung nicht bestanden: Sie ist beschädigt oder für ein anderes Modell. Nichts wurde verändert."],
	failed5: ["The firmware could not be written.", "Die Firmware ließ sich nicht schreiben."],
	failed6: ["Another update is running. If none is to be seen, restart the router.", "Eine andere Aktualisierung läuft. Ist keine zu sehen, starten Sie den Router neu."],
	failedOther: ["It ended with the unknown code {code}.", "Sie endete mit dem unbekannten Code {code}."],
	daemonSays: ["The router says: {message}", "Der Router sagt: {message}"],
	notStarted: ["Not started. {why}", "Nicht gestartet. {why}"],
	foreign: ["Somebody else started this update.", "Diese Aktualisierung hat jemand anders gestartet."],
	pageOnlyWatches: ["This page only watches: closing it does not stop the update.", "Diese Seite sieht nur zu: Sie zu schließen hält die Aktualisierung nicht an."],

	away: ["The router does not answer. This page keeps trying.", "Der Router antwortet nicht. Diese Seite versucht es weiter."],
	late: ["The router did not answer in time. Perhaps it is busy.", "Der Router hat nicht rechtzeitig geantwortet. Vielleicht ist er beschäftigt."],
	garbled: ["The router gave an answer that this page does not understand.", "Der Router gab eine Antwort, die diese Seite nicht versteht."],
	denied: ["This account may not do that, or the session has ended.", "Dieses Konto darf das nicht, oder die Sitzung ist abgelaufen."],
	missing: ["A service that this page needs does not run on the router.", "Ein Dienst, den diese Seite braucht, läuft auf dem Router nicht."],
	bus: ["The router refused the call (status {status}).", "Der Router hat den Aufruf abgelehnt (Status {status})."],
};

const NO_SESSION = "0".repeat(32);
const POLL_LIMIT = 15; // seconds; the daemon is silent for ten at a time
const LONG_LIMIT = 75; // for what the gateway itself gives up after 60
const PERIOD = { job: 1000, restart: 2000, idle: 10000 }; // milliseconds between two looks
const RESTART_LIMIT = 3; // minutes that an installer may take before the router goes away
const AWAY_LIMIT = 10; // minutes
const PATH = /^\/[A-Za-z0-9._/-]{1,111}$/;
const MIB = 1024 * 1024;

// The daemon's stages of a job; all others are of a query.
const JOB_STATES = ["FIRMWARE_CONNECT", "FIRMWARE_GET", "FIRMWARE_CHECK", "FIRMWARE_UPDATE"];
const STEPS = ["stepLoad", "stepVerify", "stepInstall", "stepRestart", "stepBack"];
const STEP_OF = { asking: 0, loading: 0, verifying: 1, installing: 2, notRestarted: 2, restarting: 3, starting: 3, returned: 4 };
const OPEN_STAGES = ["idle", "failed", "nothing", "lost", "notRestarted", "back"]; // nothing is under way

const byId = (id) => document.getElementById(id);
const language = (navigator.languages ?? []).map((name) => name.slice(0, 2).toLowerCase()).find((name) => LANGUAGES.includes(name)) ?? LANGUAGES[0];

// --- Texts

// What is filled in is fenced off, so that its writing direction stays its own.
function text(key, values = {}) {
	const one = TEXTS[key][LANGUAGES.indexOf(language)] ?? TEXTS[key][0];
	return one.replace(/\{(\w+)\}/g, (_, name) => `\u2068${values[name]}\u2069`);
}

function number(value) {
	return value.toLocaleString(language, { minimumFractionDigits: 1, maximumFractionDigits: 1 });
}

// Controls, marks that change the writing direction, and what is no character become U+FFFD.
const UNSHOWABLE = /[\0-\x08\x0b-\x1f\x7f-\x9f\u061c\u200b\u200e\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb\u{e0000}-\u{e007f}]|\p{Cs}/gu;

function shown(value) {
	return typeof value === "string" ? value.replace(/\r\n/g, "\n").replace(UNSHOWABLE, "\ufffd") : "";
}

const oneLine = (value) => shown(value).replace(/\s+/g, " ").trim();

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
	show(id, value !== "");
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
		// Without storage a reload asks for the password again, no more.
	}
}

const page = {
	session: load("session"), // {sid, user}
	watch: load("watch"), // the update followed: {job, boot, installing, before, offer}
	closed: load("closed"), // the job whose outcome was read and closed
	why: "whyFirst", // what the sign-in form says
	fault: "", // of the last look at the router
	awaySince: null, // performance.now(), while the router does not answer
	wasAway: false, // since the installation began
	fresh: false, // signed in after that
	seenSince: 0, // performance.now() when this page first saw the installation
	mayUpdate: false,
	plugin: true,
	daemon: true,
	job: null, // see readJob
	state: null, // the daemon's state
	board: null, // what runs here: {model, version, build}
	check: null, // the answer of the last check: {data} or {fault}
	busy: "", // what a button has started: check, file, start
	verdict: null, // what came of the restart: {key, good, offered}
	rate: null, // {now, time, perSecond}
	startFault: "",
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
			cache: "no-store", credentials: "omit", redirect: "error",
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
	if (isTable(reply) && isTable(reply.error))
		return { fault: { "-32002": "denied", "-32000": "missing", "-32003": "late" }[reply.error.code] ?? "garbled" };
	if (!isTable(reply) || !Array.isArray(reply.result) || !Number.isInteger(reply.result[0]))
		return { fault: "garbled" };
	const [status, data] = reply.result;
	if (status !== 0)
		return { fault: { 4: "missing", 7: "late" }[status] ?? "bus", status };
	return { data: isTable(data) ? data : {} };
}

// --- Sessions

async function signIn(event) {
	event.preventDefault();
	setNote("sign-in-fault", "");
	const user = byId("user").value;
	const reply = await call("session", "login", { username: user, password: byId("password").value }, POLL_LIMIT, NO_SESSION);
	const sid = field(reply.data, "ubus_rpc_session");
	if (!/^[0-9a-f]{32}$/.test(sid)) {
		setNote("sign-in-fault", reply.status === 6 ? text("wrongPassword") : text(reply.fault ?? "garbled", reply));
		return;
	}
	byId("password").value = "";
	Object.assign(page, { board: null, check: null, fault: "", awaySince: null, fresh: page.wasAway });
	save("session", { sid, user });
	await looking; // one that began without this session says nothing
	await look();
	byId(byId("job").hidden ? "versions-title" : "job-title").focus();
}

function endSession(why) {
	page.why = why;
	byId("user").value = page.session.user;
	save("session", null);
	render();
	byId("password").focus();
}

async function signOut() {
	await call("session", "destroy");
	endSession("whyFirst");
}

// --- Looking at the router

async function poll() {
	if (page.session)
		await pollSignedIn();
	else if (page.watch?.installing)
		// Anybody may ask this; what counts is whether somebody answers.
		noteAnswer(await call("session", "access", { scope: "ubus", object: "fwupdate", function: "state" }));
}

function noteAnswer({ fault = "" }) {
	page.fault = fault;
	if (fault !== "away" && fault !== "late") {
		page.awaySince = null;
		return;
	}
	page.awaySince ??= performance.now();
	page.wasAway ||= Boolean(page.watch?.installing);
}

async function pollSignedIn() {
	const reply = await call("fwupdate-job", "status");
	if (!page.session)
		return; // signed out meanwhile
	noteAnswer(reply);
	if (reply.fault === "denied") {
		endSession(page.watch ? "whyEndedJob" : "whyEnded");
		return;
	}
	// The plugin comes and goes with the session service: without it, an old session waits.
	page.plugin = reply.fault !== "missing";
	if (reply.fault && (page.plugin || (page.watch?.installing && !page.fresh)))
		return;
	page.fault = "";
	page.job = readJob(reply.data);
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

async function readBoard() {
	const board = await call("system", "board");
	const rights = await call("session", "access", { scope: "ubus", object: "fwupdate-job", function: "start" });
	const fault = [board.fault, rights.fault].find((one) => one && one !== "missing" && one !== "bus");
	if (fault) {
		page.fault = fault;
		return false;
	}
	page.mayUpdate = rights.data?.access === true;
	const release = board.data?.release;
	page.board = {
		model: oneLine(board.data?.model),
		version: oneLine(field(release, "revision") || field(release, "version")),
		build: oneLine(field(release, "builddate")),
	};
	return true;
}

async function readState() {
	const reply = await call("fwupdate", "state");
	if (reply.fault === "late")
		return; // busy with a query or a check: what was seen before still holds
	page.daemon = reply.fault !== "missing";
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
	const offer = isTable(job.answer) ? { version: oneLine(job.answer.version), build: oneLine(job.answer.buildtime) } : null;
	save("watch", { job: job.id, boot: job.boot, installing, before: same ? watch.before : board, offer });
	Object.assign(page, { verdict: null, wasAway: false, fresh: false, seenSince: performance.now() });
}

// Signed in, with the board read: has the router restarted, and what does it run now?
function judgeRestart() {
	const { watch, job, board } = page;
	if (!watch?.installing)
		return;
	const changed = board.version !== watch.before.version || board.build !== watch.before.build;
	const restarted = watch.boot && job.boot ? watch.boot !== job.boot : changed || page.fresh;
	if (!restarted) {
		page.wasAway = false;
		return;
	}
	const offer = watch.offer ?? { version: "", build: "" };
	const good = board.build ? Number(board.build) === Number(offer.build) : changed && board.version === offer.version;
	page.verdict = { key: good ? "backNew" : changed ? "backOther" : "backOld", good, offered: offer.build || text("unknown") };
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
	if (page.verdict)
		return "back";
	if (jobRuns())
		return jobStage();
	if (!job || job.kind === "none" || job.kind === "installing" || job.id === page.closed)
		return "idle";
	return job.kind === "lost" || job.kind === "nothing" ? job.kind : "failed";
}

function jobStage() {
	const progress = page.state?.progress;
	if (["FIRMWARE_CHECK", "FIRMWARE_UPDATE", "WAIT_DELAY"].includes(stateName()))
		return "verifying";
	if (!JOB_STATES.includes(stateName()))
		return "asking";
	return progress?.total > 0 && progress.now >= progress.total ? "verifying" : "loading";
}

// --- What the buttons do

const mayAct = () => Boolean(page.session && page.board && !page.busy && OPEN_STAGES.includes(stage()));

async function act(name, action) {
	if (!mayAct())
		return;
	Object.assign(page, { busy: name, startFault: "" });
	render();
	await action();
	page.busy = "";
	render();
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
	if (field(reply, "error_code") === "4")
		return text("fileUnset");
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
		version: oneLine(check.data.version) || text("unknown"), build: oneLine(check.data.buildtime),
		old: board.version || text("unknown"), oldBuild: board.build || text("unknown"),
	}));
	byId("yes").onclick = () => {
		byId("question").close();
		act("start", () => start(force));
	};
	byId("question").showModal();
	byId("no").focus();
}

async function start(force) {
	page.verdict = null;
	const reply = await call("fwupdate-job", "start", { force });
	// A late answer says nothing; the next look finds the job if there is one.
	if (reply.fault)
		page.startFault = text("notStarted", { why: text(reply.fault, reply) });
	else if (reply.data.status !== 0)
		page.startFault = text("notStarted", { why: startRefusal(reply.data) });
	page.busy = "";
	await look();
	byId(byId("job").hidden ? "versions-title" : "job-title").focus();
}

// fwupdate-cli's exit statuses
function startRefusal({ status, message }) {
	if (status === 4)
		return text("elsewhere");
	return status === 3 ? text("noDaemon") : oneLine(message) || text("garbled");
}

function closeJob() {
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
	show("sign-in", !page.session && !waiting);
	show("who", page.session);
	show("versions", page.session && page.board);
	setText("account", shown(page.session?.user));
	setText("sign-in-why", now === "returned" ? text("returnedText") : text(page.why));
	setNote("connection", page.session && page.fault && !waiting ? text(page.fault, { status: "?" }) : page.startFault);
	renderJob(now);
	if (page.session && page.board)
		renderVersions();
}

function renderJob(now) {
	show("job", now !== "idle");
	const title = now === "idle" ? "" : text(now === "back" ? page.verdict.key : now);
	setText("job-title", title);
	setText("spoken", title);
	if (now === "idle")
		return;
	const good = now === "back" && page.verdict.good;
	const open = OPEN_STAGES.includes(now);
	byId("job-title").className = good ? "good" : open && now !== "nothing" ? "bad" : "";
	renderSteps(good ? STEPS.length : STEP_OF[now]);
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
		measureRate(got);
		const rate = page.rate.perSecond ? text("rate", { rate: number(page.rate.perSecond / MIB) }) : "";
		setText("figures", text("figures", { percent: Math.floor(bar.value), now: number(got / MIB), total: number(total / MIB) }) + rate);
		return;
	}
	if (now === "verifying")
		bar.value = 100;
	else
		bar.removeAttribute("value"); // moves, without saying how far
	page.rate = null;
	setText("figures", "");
}

// The counter moves about once a second: the rate is taken between two moves.
function measureRate(got) {
	const time = performance.now();
	const last = page.rate;
	if (!last || got < last.now)
		page.rate = { now: got, time, perSecond: 0 };
	else if (got > last.now)
		page.rate = { now: got, time, perSecond: (got - last.now) / (time - last.time) * 1000 };
}

function jobText(now) {
	const { job, board } = page;
	if (now === "back")
		return text(`${page.verdict.key}Text`, { version: board.version || text("unknown"), build: board.build || text("unknown"), offered: page.verdict.offered });
	if (now === "loading" && !isTable(page.state.progress))
		return text("sizeUnknown");
	if (now !== "failed")
		return text(`${now}Text`, { minutes: minutesInstalling() });
	const code = field(job.answer, "error_code");
	if (job.kind === "refused")
		return text("bus", { status: oneLine(String(job.status)) });
	if (code === "1")
		return text("noServer");
	return ["2", "3", "5", "6"].includes(code) ? text(`failed${code}`) : text("failedOther", { code: oneLine(code) });
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
	setList("here", [["version", board.version], ["build", board.build], ["model", board.model]]);
	setList("offer", [["version", reply ? oneLine(reply.version) : "–"], ["build", reply ? oneLine(reply.buildtime) : "–"]]);
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

function setList(id, entries) {
	const list = byId(id);
	if (!list.children.length)
		list.append(...entries.flatMap(() => [document.createElement("dt"), document.createElement("dd")]));
	entries.forEach(([key, value], index) => {
		list.children[index * 2].textContent = text(key);
		list.children[index * 2 + 1].textContent = value || text("unknown");
	});
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

// One look at a time: whoever asks meanwhile gets the end of the one that runs.
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
	if (window.top !== window.self) {
		setNote("connection", text("inFrame"));
		return;
	}
	byId("steps").append(...STEPS.map((key) => Object.assign(document.createElement("li"), { textContent: text(key) })));
	for (const title of document.querySelectorAll("h2"))
		title.tabIndex = -1;
	byId("sign-in-form").onsubmit = signIn;
	byId("file-form").onsubmit = submitFile;
	byId("sign-out").onclick = signOut;
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
