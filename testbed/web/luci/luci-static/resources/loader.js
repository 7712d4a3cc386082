// SPDX-License-Identifier: ISC
// A stand-in for LuCI's loader: as much of it as the view of luci-app-fwupdate uses. The address's
// fragment is the session; menu.json is the package's menu entry.
'use strict';

const L = { env: { sessionid: location.hash.slice(1) }, hasViewPermission: () => L.writable };

// As LuCI's: a text is HTML, and only an array's members are text.
function E(name, attributes, children) {
	const element = Array.isArray(name) ? document.createDocumentFragment() : document.createElement(name);
	const content = Array.isArray(name) ? attributes : children;
	for (const [key, value] of Object.entries(Array.isArray(name) ? {} : attributes)) {
		if (typeof value === 'function')
			element.addEventListener(key, value);
		else
			element.setAttribute(key, value);
	}
	if (Array.isArray(content))
		element.append(...content);
	else
		element.innerHTML = content;
	return element;
}

async function post(object, method, args) {
	const params = [L.env.sessionid, object, method, args];
	const answer = await fetch('/ubus/', { method: 'POST', body: JSON.stringify({ jsonrpc: '2.0', id: 1, method: 'call', params }) });
	const { error, result } = await answer.json();
	if (error)
		throw new Error(`${object}/${method}: ${error.code}`);
	return result;
}

const rpc = {
	declare: ({ object, method, params = [], reject }) => async (...values) => {
		const [status, data] = await post(object, method, Object.fromEntries(params.map((name, index) => [name, values[index]])));
		if (status !== 0 && reject)
			throw new Error(`${object}/${method}: status ${status}`);
		return data ?? status;
	},
};

const view = { extend: (members) => members };

async function start() {
	const menu = await (await fetch('/luci-static/menu.json')).json();
	const { action: { path } } = menu['admin/system/fwupdate'];
	L.writable = (await post('session', 'access', { scope: 'access-group', object: 'luci-app-fwupdate', function: 'write' }))[1].access;
	const source = await (await fetch(`/luci-static/resources/view/${path}.js`)).text();
	const shown = new Function('L', 'E', '_', 'rpc', 'view', source)(L, E, (text) => text, rpc, view);
	document.getElementById('view').append(shown.render(await shown.load()));
}

start();
