#!/bin/sh
# SPDX-License-Identifier: ISC
# Makes sure that the Debian packages of testbed/packages.list are there. Needs
# neither root nor network when they are; installs what is missing as root, and
# otherwise says how to. An option brings what one further part of the project
# needs: testbed/packages-PART.list, then testbed/setup-PART if there is one.
set -u

fail() {
	echo "setup.sh: $*" >&2
	exit 1
}

usage() {
	echo "Usage: ./setup.sh [--PART...]"
	echo "Installs the missing packages of testbed/packages.list (as root), or says how to."
	echo "A PART brings more:$parts."
}

testbed=$(cd -- "$(dirname -- "$0")/testbed" && pwd) || exit 1
parts=
for list in "$testbed"/packages-*.list; do
	[ ! -e "$list" ] || parts="$parts --$(basename "${list#"$testbed"/packages-}" .list)"
done

lists=packages.list
hooks=
for argument in "$@"; do
	[ "$argument" != --help ] || { usage && exit 0; }
	part=${argument#--}
	list=$testbed/packages-$part.list
	case $argument in
	--*[!a-z]* | [!-]* | '') list= ;;
	esac
	if [ ! -e "$list" ]; then
		echo "setup.sh: unknown argument '$argument'." >&2
		usage >&2
		exit 2
	fi
	lists="$lists packages-$part.list"
	[ ! -x "$testbed/setup-$part" ] || hooks="$hooks $part"
done

run_hooks() {
	for part in $hooks; do
		"$testbed/setup-$part" || fail "testbed/setup-$part failed (see above)."
	done
}

# nginx and others would start as services; here they are wanted as programs.
policy=/usr/sbin/policy-rc.d
keep_services_down() {
	[ ! -e "$policy" ] || return 0
	trap 'rm -f "$policy"' EXIT
	trap 'exit 1' HUP INT TERM
	printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod 755 "$policy"
}

# shellcheck disable=SC2086 # one word per list
wanted=$(cd "$testbed" && sed 's/#.*//' $lists) || fail "the lists of packages cannot be read."
command -v dpkg-query >/dev/null ||
	fail "this needs Debian 12 or a system made from it; testbed/packages.list names what is used."

# shellcheck disable=SC2086 # one word per package
installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $wanted 2>/dev/null |
	sed -n 's/^installed //p')
missing=
for package in $wanted; do
	printf '%s\n' "$installed" | grep -qxF -- "$package" || missing="$missing $package"
done
if [ -z "$missing" ]; then
	run_hooks
	exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
	echo "setup.sh: packages are missing. 'sudo $0 $*' installs them without starting" \
		"services; by hand:" >&2
	echo "sudo apt-get install --no-install-recommends$missing" >&2
	exit 1
fi

echo "setup.sh: installing$missing"
keep_services_down || fail "$policy cannot be written."
export DEBIAN_FRONTEND=noninteractive
apt-get -qq -o DPkg::Lock::Timeout=300 update || fail "the package lists could not be fetched (see above)."
# shellcheck disable=SC2086 # one word per package
apt-get -qq -y -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 --no-install-recommends --no-remove install $missing ||
	fail "apt-get could not install$missing (see above)."
run_hooks
