// SPDX-License-Identifier: ISC
// The calls to the router, JSON-RPC over HTTP. Never throws: what goes wrong is in the reply.
import { isTable } from "./facts.js";

export const NO_SESSION = "0".repeat(32);
const LIMIT = 15; // seconds; the daemon is silent for ten at a time
const LONG_LIMIT = 75; // for what the gateway itself gives up after 60
const LONG = ["check", "test", "doctor", "start"];

const RPC_FAULTS = { "-32002": "denied", "-32000": "missing", "-32003": "late" };
const BUS_FAULTS = { 4: "missing", 7: "late" };

// Returns {data}, or {fault, number}; a fault is a key of the texts, `number` the router's own.
export async function call(sid, object, method, args = {}) {
	const request = { jsonrpc: "2.0", id: 1, method: "call", params: [sid, object, method, args] };
	let fault = "away";
	try {
		const response = await fetch("/ubus", {
			method: "POST", body: JSON.stringify(request),
			signal: AbortSignal.timeout((LONG.includes(method) ? LONG_LIMIT : LIMIT) * 1000),
			credentials: "omit", redirect: "error",
		});
		if (response.status === 404)
			return { fault: "noUbus" };
		fault = "garbled"; // something is there
		return understood(response.ok && JSON.parse(await response.text()));
	} catch (thrown) {
		return { fault: thrown.name === "TimeoutError" ? "late" : fault };
	}
}

export function understood(reply) {
	const { error, result } = isTable(reply) ? reply : {};
	if (isTable(error)) {
		const number = Number.isInteger(error.code) ? error.code : null;
		return { fault: RPC_FAULTS[number] ?? (number === null ? "garbled" : "error"), number };
	}
	const [status, data] = Array.isArray(result) ? result : [];
	if (!Number.isInteger(status))
		return { fault: "garbled" };
	if (status !== 0)
		return { fault: BUS_FAULTS[status] ?? "error", number: status };
	return { data: isTable(data) ? data : {} };
}

// Whether the router has that page.
export async function exists(path) {
	try {
		const { status } = await fetch(path, { method: "HEAD", signal: AbortSignal.timeout(LIMIT * 1000) });
		return status < 500 && status !== 404;
	} catch {
		return false;
	}
}
