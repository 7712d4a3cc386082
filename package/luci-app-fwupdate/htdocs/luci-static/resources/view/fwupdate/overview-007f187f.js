// SPDX-License-Identifier: ISC
// System > Firmware update: what is installed and available, and the way to the update page, which
// takes LuCI's session over.
'use strict';
'require rpc';
'require view';

const callBoard = rpc.declare({ object: 'system', method: 'board' });
const callCheck = rpc.declare({ object: 'fwupdate-job', method: 'check', nobatch: true, reject: true });

return view.extend({
	load: function() {
		return callBoard();
	},

	render: function(board) {
		const release = (board && board.release) || {};
		const available = E('td', { 'class': 'td left', 'id': 'fwupdate-available' }, [ _('Asking the update server…') ]);
		const show = function(text) {
			available.textContent = text;
		};

		// Not in load(): the update server may take its time.
		callCheck().then(function(reply) {
			const answer = reply.answer || {};
			if (reply.status === 10)
				show(answer.version || '?');
			else
				show(reply.status === 0 ? _('This router is up to date.') : reply.status === 4 ? _('An update is running.') : _('The update server could not be asked.'));
		}).catch(function() {
			show(_('The update server could not be asked.'));
		});

		return E([], [
			E('h2', {}, [ _('Firmware update') ]),
			E('div', { 'class': 'cbi-section' }, [
				E('table', { 'class': 'table' }, [
					E('tr', { 'class': 'tr' }, [
						E('td', { 'class': 'td left', 'width': '33%' }, [ _('Installed') ]),
						E('td', { 'class': 'td left', 'id': 'fwupdate-installed' }, [ release.revision || release.version || '?' ])
					]),
					E('tr', { 'class': 'tr' }, [ E('td', { 'class': 'td left' }, [ _('Available') ]), available ])
				])
			]),
			E('div', { 'class': 'cbi-page-actions' }, [
				E('button', { 'class': 'btn cbi-button-action important', 'id': 'fwupdate-open', 'click': this.handOver }, [
					L.hasViewPermission() ? _('Update…') : _('Show…')
				])
			])
		]);
	},

	// In this tab only: another one has a storage of its own. LuCI does not know the user's name.
	handOver: function() {
		window.sessionStorage.setItem('fwupdate.session', JSON.stringify({ sid: L.env.sessionid, user: '', from: 'luci' }));
		window.location.assign('/fwupdate/');
	},

	handleSave: null,
	handleSaveApply: null,
	handleReset: null
});
