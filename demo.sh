#!/bin/sh
# SPDX-License-Identifier: ISC
# Builds the daemon and shows it at work on a simulated router: testbed/router
# opens it, testbed/demo-steps.sh runs inside.
set -u

usage() {
	cat <<'TEXT'
Usage: ./demo.sh [--shell | --fail | --web]
       ./demo.sh --vm [--fail | --bad]

Without an option: checks for firmware, downloads it, verifies it and installs it.
  --shell   leave me on that router, with a shell
  --fail    a damaged firmware: tried twice, refused, nothing installed
  --web     the update page of that router, on a loopback port for your browser
  --vm      on the virtual router instead, a 32-bit ARM machine with real flash, which
            restarts into the new firmware; with --fail it keeps the old one, with
            --bad a firmware that does not work goes out again by itself
  --help    show this
The exit status is 0 only if every step went as it should.
TEXT
}

fail() {
	echo "demo.sh: $*" >&2
	exit 1
}

misuse() {
	echo "demo.sh: $*" >&2
	usage >&2
	exit 2
}

mode=update
case $#:${1-} in
0:) ;;
1:--shell) mode=shell ;;
1:--fail) mode=fail ;;
1:--web) mode=web ;;
1:--vm) mode=vm ;;
2:--vm)
	case $2 in
	--fail | --bad) mode=vm$2 ;;
	*) misuse "unknown argument '$2'." ;;
	esac ;;
1:--help) usage && exit 0 ;;
*) misuse "unknown arguments '$*'." ;;
esac

cd -- "$(dirname -- "$0")" || exit 1
build=build/release
work=build/demo
log=$work/build.log
server=$work/server

# On a terminal ninja draws its own single line; elsewhere a log is enough.
build_programs() {
	cmake --preset release >"$log" 2>&1 || return
	set -- cmake --build --preset release --target router_programs
	if [ -t 1 ]; then
		"$@"
	else
		"$@" >"$log" 2>&1
	fi
}

# In the middle, so the checksum is wrong.
damage_image() {
	dd if=/dev/zero of="$(echo "$server"/releases/*/firmware.bin)" bs=64 count=1 seek=10000 conv=notrunc \
		2>/dev/null
}

case $mode in
vm*)
	./setup.sh --vm || exit 1
	echo "Building the daemon and the virtual router ..."
	testbed/machine/build || exit 1
	case $mode in
	vm) exec testbed/machine/demo update ;;
	vm--fail) exec testbed/machine/demo refusal ;;
	esac
	exec testbed/machine/demo bad
	;;
esac
./setup.sh || exit 1
mkdir -p "$work" || fail "the folder $work cannot be written."
echo "Building the daemon and the router's tools ..."
if ! build_programs; then
	[ -t 1 ] || tail -n 40 "$log" >&2
	fail "the build failed; the configuration's log is $log."
fi
rm -rf "$server"
testbed/example-release "$server" || fail "the firmware for the update server could not be made."
[ "$mode" != fail ] || damage_image || fail "the firmware could not be damaged."

# A rate at which there is something to see; the damaged one is loaded twice.
case $mode in
web) exec testbed/web/demo "$build" "$server" ;;
shell) set -- --server-rate 500000 ;;
update) set -- --server-rate 500000 -- sh "$PWD/testbed/demo-steps.sh" update ;;
fail) set -- --server-rate 1000000 -- sh "$PWD/testbed/demo-steps.sh" refusal ;;
esac
exec testbed/router --build "$build" --server-root "$server" "$@"
