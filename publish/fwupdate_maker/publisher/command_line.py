# SPDX-License-Identifier: ISC
"""fwupdate-publish: what each subcommand does, messages and exit status.

0 done; 1 something failed on the way; 2 the input is refused and nothing changed;
130 and 143: ended by Ctrl-C and by SIGTERM.
"""
from __future__ import annotations

import argparse
import os
import pathlib
import re
import shutil
import signal
import sys
from typing import BinaryIO, Callable, NoReturn, Sequence

from ..refusal import Refusal, one_line
from . import addresses, signing, verify
from . import manifest as manifests
from .folder import RELEASES, Busy, Folder, check_image_name, checksum, image_place
from .image import check_image, mapped
from .input_files import check_image_file, read_notes
from .keys_text import KEYS
from .manifest import Manifest
from .options import COMMANDS, REFUSED, USAGE, parser

FAILED = 1
WAIT = 60  # seconds for another fwupdate-publish in the same folder

Options = argparse.Namespace


class WriteFailure(Exception):
    """A file of the folder, or the output, could not be written."""


class Ended(BaseException):
    """A signal ends the program; it goes through every clean-up on its way out."""


def run() -> NoReturn:
    """The program's entry."""
    if sys.stdout is not None:  # None when it is closed
        sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[attr-defined]
    for number in (signal.SIGINT, signal.SIGTERM):
        if signal.getsignal(number) != signal.SIG_IGN:
            signal.signal(number, on_signal)
    try:
        sys.exit(main(sys.argv[1:]))
    except Ended as ended:
        print("fwupdate-publish: ended by a signal.", file=sys.stderr)
        sys.exit(128 + ended.args[0])


def on_signal(number: int, _: object) -> NoReturn:
    for other in (signal.SIGINT, signal.SIGTERM):
        signal.signal(other, signal.SIG_IGN)
    raise Ended(number)


def main(arguments: Sequence[str]) -> int:
    if not arguments or arguments[0] in ("--help", "help"):
        print(USAGE, end="", file=sys.stdout if arguments else sys.stderr)
        return 0 if arguments else REFUSED
    try:
        return choose(arguments)
    except Refusal as refusal:
        return refused(refusal)
    except (verify.Mismatch, WriteFailure, Busy) as failure:
        return failed(str(failure))
    except OSError as error:
        return failed(f"{one_line(str(error.filename or 'reading'))}: {error.strerror}.")


def choose(arguments: Sequence[str]) -> int:
    if arguments[0] in COMMANDS:
        return RUN[arguments[0]](parser(arguments[0]).parse_args(arguments[1:]))
    # Without a subcommand, as until 1.0; this goes with the next release.
    options = parser("publish").parse_args(arguments)
    if options.images or options.verify is None:
        return publish(options)
    allow_only(options, ("out", "verify", "model", "board", "serial"), "--verify without an image")
    return verify_folder(options, options.verify)


def refused(*refusals: Refusal) -> int:
    for refusal in refusals:
        print(f"fwupdate-publish: {refusal}", file=sys.stderr)
    print("Nothing was changed.", file=sys.stderr)
    return REFUSED


def failed(text: str) -> int:
    print(f"fwupdate-publish: {text}", file=sys.stderr)
    return FAILED


def say(text: str) -> None:
    try:
        print(text, flush=True)
    except OSError as error:
        # What is still in the buffer would be tried, and complained of, once more at the end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        raise WriteFailure(f"standard output: {error.strerror}.") from None


def need(options: Options, names: Sequence[str], what: str) -> None:
    for name in names:
        if getattr(options, name) is None:
            shown = {"source": "from"}.get(name, "to" if what == "promote" and name == "out" else name)
            raise Refusal(f"--{shown}: {what} needs it.", "See --help.")


def allow_only(options: Options, names: Sequence[str], what: str) -> None:
    for name, value in vars(options).items():
        if name not in names and value not in (None, False, []):
            raise Refusal(f"--{name.replace('_', '-')}: {what} does not take it.", "Leave it out.")


def one(words: Sequence[str], what: str) -> str:
    if len(words) != 1:
        raise Refusal(f"{len(words)} {what} were named.", "Name one; see --help.")
    return words[0]


def check_asked(name: str, value: str | None) -> None:
    """A fact that goes into the question: routers escape nothing."""
    if value is not None and not re.fullmatch("[!-~]+" if name != "--model" else "[ -~]+", value):
        raise Refusal(f"{name} '{manifests.printable(value)}': no router sends that.",
                      f"Give the {name[2:]} in plain letters and digits, such as MODEL-X, or leave it out.")


def check_verify(options: Options, url: str | None) -> None:
    check_asked("--board", options.board)
    check_asked("--serial", options.serial)
    if url is not None:
        addresses.check_manifest_url("--verify", url)


def existing_folder(options: Options, what: str, *written: str) -> Folder:
    """For what needs no image: --out and --verify are checked before anything is done."""
    need(options, ("out",), what)
    folder = Folder(options.out)
    folder.check_place(*written)
    folder.check_there()
    return folder


def waiting(options: Options) -> float:
    return WAIT if options.wait is None else float(options.wait)


def put(folder: Folder, manifest: Manifest, write: Callable[[], object]) -> None:
    """Writes; a failure says what routers get now."""
    def state() -> str:
        return "Routers get the new update.xml." if folder.current() == manifest else "update.xml is as it was."
    try:
        write()
    except OSError as error:
        raise WriteFailure(f"{one_line(str(error.filename or folder.path))}: {error.strerror}.\n  {state()}") from None
    except Ended:
        print(f"fwupdate-publish: {state()}", file=sys.stderr)
        raise


def show(options: Options, folder: Folder, manifest: Manifest) -> int:
    say(f"Would be written to {folder.path / 'update.xml'}:")
    say(manifest.text().decode().removesuffix("\n"))
    if options.verify is not None:
        say(f"{options.verify} was not asked: a dry run writes nothing that could be compared.")
    return 0


# publish

def publish(options: Options) -> int:
    image = one(options.images, "images")
    need(options, ("version", "build", "url", "out"), "publishing")
    notes = read_notes(options.notes)
    url = options.url.rstrip("/") + "/" + image_place(options.build, image)
    manifest = Manifest(options.build, url, options.version, notes, options.force)
    folder = Folder(options.out)

    # Everything that is wrong is said at once, not one thing at each try.
    checks: list[Callable[[], object]] = [
        lambda: check_image_name(image) if os.path.isfile(image) else None,
        lambda: check_image_file(image, options.model, options.partition_size),
        lambda: manifests.check_build(options.build),
        lambda: manifests.check_version(options.version),
        lambda: manifests.check_notes(notes),
        lambda: addresses.check_base_url(options.url),
        lambda: folder.check_place(".", RELEASES),
        lambda: check_verify(options, options.verify),
        lambda: signing.check_secret_key(options.sign) if options.sign is not None else None]
    refusals = []
    for check in checks:
        try:
            check()
        except Refusal as refusal:
            refusals.append(refusal)
    if refusals:
        return refused(*refusals)
    folder.check_place(f"{RELEASES}/{options.build}")
    return release(options, folder, manifest, image)


def release(options: Options, folder: Folder, manifest: Manifest, image: str) -> int:
    """Publishes an image whose own faults, and those of the options, are known by now."""
    manifests.check_url(manifest.url)
    manifests.check_answer(manifest)
    model = check_image(image)
    folder.check_new(manifest, image)
    check_model_of_before(options, folder, model)
    if options.sign is None:
        folder.check_same(manifest, pathlib.Path(image), image)
        check_signature(options, folder, manifest, image)
    else:
        with mapped(image) as content:
            signing.check_can_carry(image, content)
    text = manifest.text()
    say(f"Version {manifest.version}, build {manifest.build}, for the model {model}:"
        f" {os.stat(image).st_size} bytes, manifest {len(text)} of {manifests.ANSWER_LIMIT}.")
    if options.dry_run:
        return show(options, folder, manifest)
    with folder.locked(waiting(options), say):
        check_model_of_before(options, folder, model)
        put(folder, manifest, lambda: folder.publish(
            manifest, image, lambda target: copy(options, manifest, image, target),
            lambda part: check_copy(options, folder, manifest, model, str(part))))
    place = folder.image(manifest)
    signer = signature_of(str(place))
    say(f"Written: {place}" + (f", signed by the key {signer}" if signer else ""))
    say(f"Written: {folder.path / 'update.xml'}")
    return verify_written(options, folder, model)


def copy(options: Options, manifest: Manifest, image: str, target: BinaryIO) -> None:
    with open(image, "rb") as source:
        if options.sign is None:
            shutil.copyfileobj(source, target, 1 << 20)
            return
        with mapped(image) as content:
            signing.write_signed(image, content, source, target, options.sign, manifest.build)


def check_copy(options: Options, folder: Folder, manifest: Manifest, model: str, part: str) -> None:
    """What is published is what was checked: the file may have changed while it was copied."""
    check_image(part, model, options.partition_size)
    check_signature(options, folder, manifest, part)


def signature_of(path: str) -> str | None:
    """The number of the key that signed the image; nobody, for what carries nothing."""
    try:
        with mapped(path) as image:
            return signing.signed_by(path, image, None)
    except Refusal:
        return None


def check_signature(options: Options, folder: Folder, manifest: Manifest, image: str) -> None:
    with mapped(image) as content:
        signer = signing.signed_by(image, content, options.key)
        build = signing.build_of(content, image)
    if signer is not None and build is None or build is not None and build != manifest.build:
        raise Refusal(f"image '{image}': its metadata give the build {build or 'none'}, --build gives"
                      f" {manifest.build}. A router goes by what is signed.",
                      "Give the same build to 'sign' and to 'publish'.")
    last = folder.last_image()
    if signer is None and last is not None and signature_of(str(last)) is not None:
        raise Refusal(f"image '{image}': it is not signed, and the one that the folder '{folder.path}' offers is."
                      " Routers that have a key refuse it.", "Give --sign KEY, or sign it with 'sign' before.")


def check_model_of_before(options: Options, folder: Folder, model: str) -> None:
    last = folder.last_model()
    if last is not None and last.upper() != model.upper() and not options.other_model:
        raise Refusal(f"image: it is made for the model '{model}'; the folder '{folder.path}' offers one for '{last}'.",
                      "Give the folder of that model, or --other-model when it is meant so.")


def verify_written(options: Options, folder: Folder, model: str) -> int:
    if options.verify is not None:
        verify.verify(options.verify, folder, options.board or model, options.serial or "verify", say)
    return 0


# The other commands

def rollback(options: Options) -> int:
    if len(options.builds) > 1:
        raise Refusal("rollback takes one build number.", "See --help.")
    folder = existing_folder(options, "rollback", ".")
    check_verify(options, options.verify)
    base = base_url(options)
    with folder.locked(waiting(options), say):
        current = folder.current()
        manifest = folder.release_to_put_back(options.builds[0] if options.builds else None, base)
        manifests.check_url(manifest.url)
        manifests.check_answer(manifest)
        instead = f" in place of version {current.version}, build {current.build}" if current else ""
        say(f"Version {manifest.version}, build {manifest.build}, forced{instead}: every router that asks"
            " here and runs any other build is offered it.")
        if options.dry_run:
            return show(options, folder, manifest)
        put(folder, manifest, lambda: folder.put(manifest))
    say(f"Written: {folder.path / 'update.xml'}")
    return verify_written(options, folder, folder.last_model() or "")


def base_url(options: Options) -> str | None:
    if options.url is None:
        return None
    addresses.check_base_url(options.url)
    return str(options.url).rstrip("/")


def promote(options: Options) -> int:
    need(options, ("source", "out"), "promote")
    check_verify(options, options.verify)
    source, folder = Folder(options.source), Folder(options.out)
    source.check_place()
    folder.check_place(".", RELEASES)
    offered = source.current()
    if offered is None:
        raise Refusal(f"folder '{source.path}': it offers nothing.", "Name the folder of the candidate with --from.")
    source.check_unchanged(offered)
    base = base_url(options) or folder.base(folder.current())
    if base is None:
        raise Refusal(f"folder '{folder.path}': it offers nothing yet, so its address is not known.",
                      "Give --url, the address at which routers find the folder.")
    image = str(source.image(offered))
    manifest = Manifest(offered.build, f"{base}/{image_place(offered.build, image)}", offered.version, offered.notes,
                        options.force)
    options.sign = options.partition_size = None
    options.other_model = False
    return release(options, folder, manifest, image)


def list_releases(options: Options) -> int:
    folder = existing_folder(options, "list")
    current = folder.current()
    for build in folder.kept():
        manifest = folder.release(build)
        assert manifest is not None
        path = folder.image(manifest)
        size = f"{path.stat().st_size} bytes" if path.is_file() else "the image is gone"
        signer = signature_of(str(path)) if path.is_file() else None
        say("  ".join(["*" if current and current.build == build else " ", f"{build:>9}", f"{manifest.version:<19}",
                       size, *([f"signed by {signer}"] if signer else [])]))
    return 0


def status(options: Options) -> int:
    folder = existing_folder(options, "status")
    current = folder.current()
    if current is None:
        say("Routers are offered nothing: there is no update.xml.")
        return FAILED
    say(f"Offered: version {current.version}, build {current.build}"
        + (", forced: routers with any other build take it" if current.force else ""))
    say(f"Address: {current.url}")
    path = folder.image(current)
    if not path.is_file():
        say(f"The image is gone: {path}")
        return FAILED
    try:
        folder.check_unchanged(current)
    except Refusal as refusal:
        say(str(refusal))
        return FAILED
    say(f"Image: {path.stat().st_size} bytes, SHA-256 {checksum(path)}, as published")
    say(f"Signed by: {signature_of(str(path)) or 'nobody'}")
    return 0


def prune(options: Options) -> int:
    need(options, ("keep",), "prune")
    folder = existing_folder(options, "prune", ".", RELEASES)
    with folder.locked(waiting(options), say):
        gone = folder.prune(options.keep, options.dry_run)
    for build in gone:
        say(f"{'Would be removed' if options.dry_run else 'Removed'}: release {build}")
    say(f"{len(gone)} releases {'would be ' if options.dry_run else ''}removed, {len(folder.kept())} kept.")
    return 0


def verify_command(options: Options) -> int:
    return verify_folder(options, one(options.urls, "addresses"))


def verify_folder(options: Options, url: str) -> int:
    folder = existing_folder(options, "--verify")
    check_verify(options, url)
    check_asked("--model", options.model)
    board = options.board or options.model or folder.last_model() or ""
    verify.verify(url, folder, board, options.serial or "verify", say)
    return 0


def sign(options: Options) -> int:
    image = one(options.images, "images")
    need(options, ("build", "sign", "output"), "sign")
    manifests.check_build(options.build)
    signing.check_secret_key(options.sign)
    check_image_file(image, None, None)
    if os.path.exists(options.output):
        raise Refusal(f"--output '{options.output}': it is there already.", "Give the name of a new file.")
    try:
        with open(image, "rb") as source, mapped(image) as content, open(options.output, "wb") as target:
            signing.write_signed(image, content, source, target, options.sign, options.build)
        check_image(options.output)
        with mapped(options.output) as content:
            signer = signing.signed_by(options.output, content, options.key)
    except BaseException:
        pathlib.Path(options.output).unlink(missing_ok=True)
        raise
    say(f"Written: {options.output}, build {options.build}, signed by the key {signer}")
    return 0


def keys(options: Options) -> int:
    if not options.words:
        say(KEYS)
        return 0
    if len(options.words) != 2 or options.words[0] not in ("make", "show"):
        raise Refusal("keys takes 'make NAME', 'show PUB', or nothing.", "See --help.")
    name = options.words[1]
    if options.words[0] == "make":
        number = signing.make_keys(name)
        say(f"Written: {name}.sec, which stays on this desk, and {name}.pub, which goes to the routers.")
        name += ".pub"
    else:
        number = signing.public_key_number(name)
    say(f"Key {number}: copy {name} to {signing.KEYS_FOLDER}/{number} on each router.")
    return 0


RUN: dict[str, Callable[[Options], int]] = {
    "publish": publish, "rollback": rollback, "promote": promote, "list": list_releases, "status": status,
    "prune": prune, "verify": verify_command, "sign": sign, "keys": keys}
