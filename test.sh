#!/usr/bin/env bash
# SPDX-License-Identifier: ISC
# Builds and tests. What is run is a plan of steps; each says what it is, which one of
# how many, and how long it took the last time.
# shellcheck disable=SC2317 # steps are called by their names
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 1
export PYTHONDONTWRITEBYTECODE=1 # nothing is left in the tree

usage() {
	cat <<'TEXT'
Usage: ./test.sh [RUN] [OPTION...]

RUN, with its time on two idle cores:
  (none)              the release build and its tests (4 min)
  --all               that, unless it has passed on these very sources, and: static checks,
                      the sanitizer build and its tests, sizes, documents (8 min more)
  --static            format, shellcheck and clang-tidy, of the tests as well (5 min)
  --coverage          line and branch coverage of src/; the report is in
                      build/coverage/report (5 min)
  --web               the update page in a real browser; with --pictures the screenshots
                      in docs/pictures are taken anew (5 min)
  --vm                updates on the virtual router, power cuts included (13 min); the
                      first time its toolchain and programs are made (10 min)
  --arch ARCH         the tests with musl, as on a router: x86_64-musl, or mips-musl,
                      mipsel-musl, aarch64-musl, armhf-musl by an emulator; what it cannot
                      do is in tests/not-emulated.md (20 min). With --quick: the unit
                      tests, and an update by a daemon of ARCH on a bus of this machine
                      (3 min). The first time its compiler and libraries are made (10 min)
  --mutants N         N small changes that the tests must notice (1 min each, 5 before)
  --help              show this

OPTION:
  --filter PATTERN    only the tests that match, as --gtest_filter takes it
                      (with --web and --vm as pytest's -k takes it)
  --second-try        tests that failed run once more, alone; the last lines name them
  --of KIND           with --mutants: what is changed, cpp (src/, the default), shell (the
                      command), python (the publisher) or page (what the page decides)
  --seed S            with --mutants: which changes (1)

The last line is "N passed, N failed"; the exit status is 0 only when nothing
failed, no check complained and at least one test ran.

Beside it: ./demo.sh, fuzz/run, bench/run, bench/soak, bench/size, testbed/router,
testbed/vm. Each says with --help what it does. .ci/run is what runs automatically.
TEXT
}

misuse() {
	echo "test.sh: $*" >&2
	usage >&2
	exit 2
}

run=release
arch=
quick=no
second_try=no
mutants=0
mutate=()
filter=
while [ $# -gt 0 ]; do
	case $1 in
	--arch | --mutants | --of | --seed | --filter)
		[ $# -ge 2 ] || misuse "$1 takes a value" ;;
	esac
	case $1 in
	--all | --static | --coverage | --web | --vm) run=${1#--} ;;
	--arch) run=arch arch=$2 && shift ;;
	--mutants) run=mutants mutants=$2 && shift ;;
	--of | --seed) mutate+=("$1" "$2") && shift ;;
	--quick) quick=yes ;;
	--pictures) export FWUPDATE_PICTURES=1 ;;
	--second-try) second_try=yes ;;
	--filter) filter=$2 && shift ;;
	--help) usage && exit 0 ;;
	*) misuse "unknown argument '$1'" ;;
	esac
	shift
done

# An architecture is one that a preset names.
if [ "$run" = arch ] && ! grep -qF "\"FWUPDATE_ARCH\": \"$arch\"" CMakePresets.json; then
	misuse "'$arch' is not an architecture that the tests run for;" \
		"those are $(sed -n 's/.*"FWUPDATE_ARCH": "\(.*\)".*/\1/p' CMakePresets.json | paste -sd ' ')"
fi
[ "$quick" = no ] || [ "$run" = arch ] || misuse "--quick goes with --arch"
[ "$run" = mutants ] || [ ${#mutate[@]} -eq 0 ] || misuse "${mutate[0]} goes with --mutants"

jobs=$(nproc)
export CTEST_PARALLEL_LEVEL=$((4 * jobs)) # the tests wait most of their time
emulate=()                                # what a command for another architecture is prefixed with
excluded=                                 # tests that are left out, as GTEST_FILTER takes them
passed=0
failed=0
complaints=()
again=() # tests that were run a second time
took=()
early= # the process that builds what comes next

# step PLACE NAME COMMAND...: its failure is remembered and told again at the end.
step() {
	local name=$2 clock="build/times/$2" start=$SECONDS status=0 last=
	[ ! -f "$clock" ] || last=" ($(<"$clock") the last time)"
	printf '\n== %s: %s%s\n' "$1" "$name" "$last"
	"${@:3}" || status=$?
	took+=("$name $((SECONDS - start)) s")
	if [ "$status" -ne 0 ]; then
		complaints+=("$name")
	elif [ -z "$filter" ]; then
		echo "$((SECONDS - start)) s" >"$clock"
	fi
	return "$status"
}

# conclude BUILD STATUS [OPTION...]: tests of the build have ended with this status. Those that
# failed may get a second try, with run_again's options; then all are counted.
conclude() {
	local build=$1 status=$2 count good bad
	if [ "$status" -ne 0 ] && [ "$second_try" = yes ]; then
		printf '\n-- once more, alone:\n%s\n' "$(tests/list_results --failed "$build")"
		mapfile -t -O ${#again[@]} again < <(tests/list_results --failed "$build")
		tests/run_again "$build" "${@:3}" && status=0
	fi
	count=$(tests/list_results --count "$build")
	echo "$build: $count"
	read -r good _ bad _ <<<"$count"
	[ "$status" -eq 0 ] || [ "$bad" -gt 0 ] || bad=1 # what failed has left no report
	passed=$((passed + good))
	failed=$((failed + bad))
	return "$status"
}

# build PRESET [TARGET...]
build() {
	cmake --preset "$1" >"build/$1.log" 2>&1 || { cat "build/$1.log"; return 1; }
	sed -n '/^-- lib/p' "build/$1.log"
	set -- cmake --build "build/$1" ${2+--target "${@:2}"}
	if [ -t 1 ]; then "$@"; else "$@" -- --quiet; fi
}

# test_build PRESET. The pattern is GoogleTest's; a Python test alone is run by pytest itself.
test_build() {
	local build=build/$1 status=0
	rm -rf "$build/reports" "$build/Testing/Temporary/LastTestsFailed.log"
	GTEST_FILTER=${filter:-*}${excluded:+-$excluded} GTEST_OUTPUT=xml:$PWD/$build/reports/ \
		"${emulate[@]}" ctest --test-dir "$build" --output-on-failure --no-tests=error ${filter:+-LE python} || status=$?
	conclude "$build" "$status" "${emulate[@]}"
}

# What has passed on the very files that are there now is not run again by --all.
test_release() {
	local stamp=build/release/passed
	if [ "$run" = all ] && [ -z "$filter" ] && [ -f "$stamp" ] &&
		[ -z "$(find . \( -path ./build -o -path ./.git \) -prune -o -newer "$stamp" -print -quit)" ]; then
		echo "They have passed, and no file has changed since."
		return
	fi
	rm -f "$stamp"
	touch build/begun
	test_build release || return
	[ -n "$filter" ] || mv build/begun "$stamp"
}

# The sanitizers' build begins early, at a low priority: the tests wait half of their time. It
# leads a group of its own, so that nothing of it is left when this script is interrupted.
test_release_and_build_asan() {
	local status=0
	set -m
	{ renice -n 10 "$BASHPID" && build asan; } >build/early.log 2>&1 </dev/null &
	early=$!
	set +m
	test_release || status=$?
	wait "$early" # what is wrong with it, the next step shows
	early=
	return "$status"
}
trap '[ -z "$early" ] || kill -- "-$early"' EXIT

# Tests that the emulator is known to fail: one that passes has to leave the list.
check_not_emulated() {
	local build=build/$arch
	rm -rf "$build/reports"
	GTEST_FILTER=$(tests/check_not_emulated tried "$arch") \
		"${emulate[@]}" ctest --test-dir "$build" -Q -LE 'python|fuzz' -j "$jobs"
	tests/check_not_emulated check "$arch" "$build"
}

prepare_arch() {
	testbed/toolchain "$arch" && emulate=(testbed/emulate "$arch") &&
		excluded=$(tests/check_not_emulated all "$arch")
}

# The tools and, for the update, the tests are this machine's: that is faster, and what
# goes over the bus is understood in both byte orders.
units=(base_tests daemon_tests discovery_tests firmware_tests verify_tests)
build_arch_quickly() {
	build "$arch" fwupdate "${units[@]}" &&
		build release router_programs router_tests
}

test_arch_quickly() {
	local program status=0
	rm -rf "build/$arch/reports"
	for program in "${units[@]}"; do
		GTEST_FILTER="*-$excluded" "${emulate[@]}" tests/in_router --tools build/release "build/$arch" "$program" --gtest_brief=1 || status=1
	done
	"${emulate[@]}" tests/in_router --daemon "build/$arch" build/release router_tests --gtest_brief=1 \
		--gtest_filter='UpdateInstall.*:CheckEvent.*' || status=1
	conclude "build/$arch" "$status" --native build/release
}

report_coverage() {
	local report=build/coverage/report
	mkdir -p "$report"
	gcovr --html-details "$report/index.html" --txt "$report/lines.txt" &&
		gcovr --branches --print-summary | tee "$report/branches.txt" &&
		cat "$report/lines.txt"
}

# Runs the Python tests of one further part of the project: the page in a browser, the
# virtual router, the documents. A skipped test is no passed one: on an automatic run, where
# all that the tests need is there, it counts as failed.
# test_part PART [OPTION...]
test_part() {
	local part=$1 status=0
	rm -rf "build/$part/reports"
	export FWUPDATE_BUILD=build/release
	/usr/bin/python3 -B -m pytest -q -rs -p no:cacheprovider "${@:2}" \
		-k "${filter:-test}" --junitxml="build/$part/reports/$part.xml" "tests/$part" || status=$?
	conclude "build/$part" "$status"
}

# test_mutants OPTION...: a change that was noticed, or that mutants-unseen.md explains, has passed.
test_mutants() {
	local status=0 noticed explained missed
	tests/mutate "$@" | tee build/mutants.log || status=$?
	read -r noticed explained missed < <(sed -nE \
		's/^seed .* ([0-9]+) noticed, ([0-9]+) explained, ([0-9]+) not noticed.*/\1 \2 \3/p' build/mutants.log)
	passed=$((passed + noticed + explained))
	failed=$((failed + missed))
	return "$status"
}

check_documents() {
	local document
	cp build/docs/reports/docs.xml build/release/reports/ # they name these tests as well
	for document in behaviours security reliability; do
		tests/check_behaviours "docs/$document.md" build/release || return
	done
	tests/list_faults docs/reliability.md build/release >build/reliability.md
}

finish() {
	printf '\nThis took %s s' "$SECONDS"
	printf ', %s' "${took[@]}"
	echo .
	[ ${#again[@]} -eq 0 ] || printf 'RUN TWICE: %s\n' "${again[@]}"
	[ ${#complaints[@]} -eq 0 ] || printf 'FAILED: %s\n' "${complaints[@]}"
	[ "$run" = static ] || echo "$passed passed, $failed failed"
	[ ${#complaints[@]} -eq 0 ] && [ "$failed" -eq 0 ] && [[ $run = static || $passed -gt 0 ]]
	exit
}

# Each step: NAME = COMMAND. A build that fails ends the run; every other step is run.
plan=("packages = ./setup.sh")
case $run in
web | vm | arch) plan=("packages = ./setup.sh --$run") ;;
esac
case $run in
release)
	plan+=("build release = build release" "test release = test_release")
	;;
all)
	plan+=("format = tests/check_sources format" "scripts = tests/check_sources scripts" "floors = tests/check_floors"
		"build release = build release" "test release = test_release_and_build_asan"
		"test documents, program = test_part docs tests/program tests/bench -n $jobs"
		"build asan = build asan" "test asan, clang-tidy = test_build asan" "size = bench/size --check")
	[ -n "$filter" ] || plan+=("documents = check_documents")
	;;
static)
	plan+=("format = tests/check_sources format" "scripts = tests/check_sources scripts" "floors = tests/check_floors"
		"clang-tidy = tests/check_sources tidy src|testbed|tests|fuzz|bench")
	;;
coverage)
	plan+=("build coverage = build coverage" "test coverage = test_build coverage" "coverage = report_coverage")
	;;
web)
	plan+=("build release = build release router_programs"
		"test web = test_part web -n $jobs")
	;;
vm)
	plan+=("build virtual router = testbed/machine/build"
		"test vm = test_part vm -n $jobs --basetemp=build/vm/tests --durations=0 --durations-min=1")
	[ -n "$filter" ] || plan+=("documents = tests/check_behaviours docs/virtual-router.md build/vm")
	;;
arch)
	plan+=("libraries of $arch = prepare_arch")
	if [ "$quick" = yes ]; then
		plan+=("build $arch = build_arch_quickly" "test $arch = test_arch_quickly")
	else
		plan+=("build $arch = build $arch" "test $arch = test_build $arch")
		[ -n "$filter" ] || [ -z "$(tests/check_not_emulated tried "$arch")" ] ||
			plan+=("not emulated $arch = check_not_emulated")
	fi
	! grep -q "^$arch " bench/size-budget || plan+=("size $arch = bench/size --check $arch")
	;;
mutants)
	plan+=("build release = build release router_programs router_tests"
		"mutants = test_mutants --count $mutants ${mutate[*]}")
	;;
esac

mkdir -p build/times
for index in "${!plan[@]}"; do
	read -ra command <<<"${plan[index]#* = }"
	step "$((index + 1)) of ${#plan[@]}" "${plan[index]%% = *}" "${command[@]}" && continue
	case ${plan[index]} in packages* | libraries* | build*) failed=$((failed + 1)) && break ;; esac
done
finish
