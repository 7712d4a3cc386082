#!/bin/sh
# SPDX-License-Identifier: ISC
# Makes sure that the Debian packages of testbed/packages.list are there. Needs
# neither root nor network when they are; installs what is missing as root, and
# otherwise says how to.
set -u

fail() {
	echo "setup.sh: $*" >&2
	exit 1
}

usage() {
	echo "Usage: ./setup.sh"
	echo "Installs the missing packages of testbed/packages.list (as root), or says how to."
}

case $#:${1-} in
0:) ;;
1:--help) usage && exit 0 ;;
*)
	echo "setup.sh: unknown arguments '$*'." >&2
	usage >&2
	exit 2
	;;
esac

# nginx and others would start as services; here they are wanted as programs.
policy=/usr/sbin/policy-rc.d
keep_services_down() {
	[ ! -e "$policy" ] || return 0
	trap 'rm -f "$policy"' EXIT
	trap 'exit 1' HUP INT TERM
	printf '#!/bin/sh\nexit 101\n' >"$policy" && chmod 755 "$policy"
}

list=$(dirname -- "$0")/testbed/packages.list
wanted=$(sed 's/#.*//' "$list") || fail "the list of packages cannot be read."
command -v dpkg-query >/dev/null ||
	fail "this needs Debian 12 or a system made from it; $list names what is used."

# shellcheck disable=SC2086 # one word per package
installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' $wanted 2>/dev/null |
	sed -n 's/^installed //p')
missing=
for package in $wanted; do
	printf '%s\n' "$installed" | grep -qxF -- "$package" || missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
	echo "setup.sh: packages are missing. 'sudo $0' installs them without starting" \
		"services; by hand:" >&2
	echo "sudo apt-get install --no-install-recommends$missing" >&2
	exit 1
fi

echo "setup.sh: installing$missing"
keep_services_down || fail "$policy cannot be written."
export DEBIAN_FRONTEND=noninteractive
apt-get -qq update || fail "the package lists could not be fetched (see above)."
# shellcheck disable=SC2086 # one word per package
apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends --no-remove install $missing ||
	fail "apt-get could not install$missing (see above)."
