// SPDX-License-Identifier: ISC
// What the page says, in English, and how values are written; what never changes stands in
// index.html. Other languages come by speak(). A sentence is {key, values}: {name} is filled in, and
// a value may be a sentence itself.
const ENGLISH = {
	title: "Firmware update",
	tab: "{what} – Firmware update",
	signIn: "Sign in",
	signingIn: "Signing in …",
	signOut: "Sign out",
	signOutLuci: "Sign out, of LuCI too",
	whyEnded: "Your session has ended.",
	whyEndedUpdate: "Your session has ended. The update goes on without it.",
	wrongPassword: "Wrong user name or password.",
	noRights: "This account may not use this page.",

	unknown: "unknown",
	checkedAt: "Last check: {at}",
	readOnly: "This account may look, but not update.",
	noPlugin: "No updates from here: fwupdate-job is missing on the router.",
	checking: "Asking the update server …",
	newer: "A new version is available",
	demanded: "The update server asks for this version",
	upToDate: "This router is up to date",
	noServer: "The update server gave no usable answer.",
	finding: "{found} {todo}",
	noDaemon: "The update service does not answer.",
	elsewhere: "An update is already running.",

	fileBad: "“{path}” is refused. A path begins with “/” and has at most 112 letters, digits and . _ / -",
	fileChecking: "Checking the file …",
	fileResult: "{path}: {result}",
	file0: "firmware for this router, and undamaged.",
	"file-2": "cannot be read.",
	"file-3": "cannot be read.",
	"file-4": "cannot be read.",
	"file-5": "no firmware.",
	"file-6": "damaged firmware.",
	"file-7": "damaged firmware.",
	"file-9": "firmware for another model.",
	fileOther: "refused (code {code}).",

	questionText: "Version {new} replaces version {old}.",

	steps: "Download|Verify|Install|Restart|Ready",
	percent: "{percent}",
	figures: "{percent} · {got} of {total} MiB",
	elapsed: "{time} so far · usually {from} to {to} minutes",
	opening: "One moment …",
	openingText: "",
	asking: "Starting the update",
	askingText: "Asking the update server …",
	loading: "Downloading",
	loadingText: "",
	sizeUnknown: "The size of the firmware is not known yet.",
	verifying: "Verifying",
	verifyingText: "Checksums and model are compared.",
	installing: "Installing",
	installingText: "The router restarts by itself. Do not switch it off.",
	restarting: "Restarting",
	restartingText: "The router does not answer now. This page keeps looking. Do not switch the router off.",
	starting: "Restarting",
	startingText: "The router answers, but not all of its services are there yet.",
	longAway: "This takes long. The router may have another address or certificate now: open the page anew.",
	returned: "The router answers again",
	returnedText: "Sign in to see what became of the update.",
	trial: "On trial",
	trialText: "Version {version} runs on trial for another {left} s. If a check fails, the router goes back to the old version.",
	checkOk: "✓ {check}",
	checkWaits: "… {check}",
	check10: "the update service answers (10-daemon)",
	check20: "the network is up (20-network)",
	check30: "the update server answers (30-server)",
	done: "Update complete",
	doneText: "The router has restarted and runs version {version}.",
	changed: "The router runs another version than before",
	changedText: "It has restarted with version {version}.",
	old: "The router still runs the old version",
	oldText: "It has restarted with version {version}. Version {offered} was not installed, or did not start.",
	other: "The router runs an unexpected version",
	otherText: "It has restarted with version {version}. Version {offered} was offered.",
	takenBack: "The new version was taken back",
	takenBackText: "Build {tried} did not pass a check: {check}. The router runs version {version}.",
	refused: "The firmware was refused",
	refusedText: "Nothing was changed. The reason: {reason}",
	notRestarted: "The router did not restart",
	notRestartedText: "The installer got the firmware {minutes} minutes ago, and probably refused it: see the system log. Restart the router before you try again.",

	when: "That was {ago}.",
	nothing: "There was nothing to install",
	nothingText: "The update server has no newer version.",
	lost: "The result of the update is unknown",
	lostText: "The update service was restarted. See which version is installed, then try again.",
	failed: "The update failed",
	failed1: "The update server gave no usable answer. Nothing was changed.",
	failed2: "The download failed. Nothing was changed. Is the router online, with enough free memory?",
	failed3: "The firmware is damaged, or made for another model. Nothing was changed.",
	failed5: "The firmware could not be written.",
	failed6: "Another update is running. If there is none: /etc/init.d/fwupdate restart",
	failedOther: "It ended with the unknown code {code}.",
	daemonSays: "The router says: {message}",
	notStarted: "Not started. {why}",
	unsure: "No clear answer came. If the update has begun, it appears here.",
	foreign: "Somebody else started this update.",

	fault: "{fault} This page keeps trying.",
	uncertain: "{fault} This was so at {at}. This page keeps trying.",
	away: "The router does not answer.",
	late: "The router did not answer in time.",
	garbled: "This page does not understand the router’s answer.",
	denied: "This account may not do that.",
	missing: "The router’s session service (rpcd) does not answer.",
	noUbus: "The router has no /ubus: the package uhttpd-mod-ubus is missing.",
	error: "The router could not do that (error {number}).",
};

const OTHERS = { de: () => import("./german.js") };

let language = "en";
let texts = ENGLISH;

// Takes the first of the browser's languages that there is. Returns its name.
export async function speak(names) {
	language = names.map((name) => name.slice(0, 2)).find((name) => name === "en" || OTHERS[name]) ?? "en";
	texts = OTHERS[language] ? (await OTHERS[language]()).GERMAN : ENGLISH;
	return language;
}

const mib = (bytes) => (bytes / 1024 / 1024).toLocaleString(language, { minimumFractionDigits: 1, maximumFractionDigits: 1 });
const UNITS = { day: 86400, hour: 3600, minute: 60 };

const WRITTEN = {
	got: mib,
	total: mib,
	percent: (part) => new Intl.NumberFormat(language, { style: "percent" }).format(Math.floor(part * 100) / 100),
	at: (time) => new Date(time).toLocaleTimeString(language, { timeStyle: "short" }),
	time: (milliseconds) => new Date(milliseconds).toISOString().slice(milliseconds < 3600000 ? 14 : 11, 19),
	ago: (seconds) => {
		const unit = Object.keys(UNITS).find((name) => seconds >= UNITS[name]) ?? "minute";
		return new Intl.RelativeTimeFormat(language).format(-Math.floor(seconds / UNITS[unit]), unit);
	},
};

function written(name, value) {
	if (value?.key)
		return plain(value);
	return WRITTEN[name]?.(value) ?? String((value ?? "") === "" ? texts.unknown : value);
}

// The sentence in pieces: each second one is a value.
export function pieces({ key, values }) {
	return texts[key].split(/\{(\w+)\}/).map((piece, index) => (index % 2 ? written(piece, values[piece]) : piece));
}

export const plain = (sentence) => pieces(sentence).join("");

export const text = (key) => texts[key];
