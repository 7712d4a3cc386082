# SPDX-License-Identifier: ISC
"""fwupdate-publish: arguments, messages and exit status.

0 done; 1 something failed on the way; 2 the input is refused and nothing changed.
"""
import os
import pathlib
import re
import sys

from . import manifest as manifests
from . import verify
from .folder import RELEASES, Folder, check_image_name, image_place
from .image import check_image
from .input_files import check_image_file, read_notes
from .manifest import Manifest
from .options import REFUSED, parser
from .refusal import Refusal

FAILED = 1


class WriteFailure(Exception):
    """A file of the folder, or the output, could not be written."""


def main(arguments):
    options = parser().parse_args(arguments)
    try:
        if options.words[:1] == ["rollback"]:
            return rollback(options)
        if not options.words and options.verify is not None:
            return verify_only(options)
        return publish(options)
    except Refusal as refusal:
        return refused(refusal)
    except (verify.Mismatch, WriteFailure) as failure:
        return failed(failure)
    except OSError as error:
        return failed(f"{error.filename or 'reading'}: {error.strerror}.")


def refused(*refusals):
    for refusal in refusals:
        print(f"fwupdate-publish: {refusal}", file=sys.stderr)
    print("Nothing was changed.", file=sys.stderr)
    return REFUSED


def failed(text):
    print(f"fwupdate-publish: {text}", file=sys.stderr)
    return FAILED


def need(options, names, what):
    for name in names:
        if getattr(options, name) is None:
            raise Refusal(f"--{name}: {what} needs it.", "See --help.")


def allow_only(options, names, what):
    for name in ("version", "build", "url", "notes", "model", "partition_size"):
        if name not in names and getattr(options, name) is not None:
            raise Refusal(f"--{name.replace('_', '-')}: {what} does not take it.", "Leave it out.")
    if options.force and "force" not in names:
        raise Refusal(f"--force: {what} does not take it.", "Leave it out.")


def check_verify(url):
    if url is not None:
        manifests.check_manifest_url("--verify", url)


def existing_folder(options, *written):
    """For what needs no image: --out and --verify are checked before anything is done."""
    folder = Folder(options.out)
    folder.check_place(*written)
    check_verify(options.verify)
    return folder


def publish(options):
    if len(options.words) != 1:
        raise Refusal(f"{len(options.words)} images were named.", "Name one; see --help.")
    need(options, ("version", "build", "url", "out"), "publishing")
    image = options.words[0]
    notes = read_notes(options.notes)
    url = options.url.rstrip("/") + "/" + image_place(options.build, image)
    manifest = Manifest(options.build, url, options.version, notes, options.force)
    folder = Folder(options.out)

    # Everything that is wrong is said at once, not one thing at each try.
    refusals = []
    for check, *values in (
            *([(check_image_name, image)] if os.path.isfile(image) else []),
            (check_image_file, image, options.model, options.partition_size),
            (manifests.check_build, options.build),
            (manifests.check_version, options.version),
            (manifests.check_notes, notes),
            (manifests.check_base_url, options.url),
            (folder.check_place, ".", RELEASES),
            (check_verify, options.verify)):
        try:
            check(*values)
        except Refusal as refusal:
            refusals.append(refusal)
    if refusals:
        return refused(*refusals)
    folder.check_place(f"{RELEASES}/{options.build}")
    manifests.check_url(url)
    manifests.check_answer(manifest)
    folder.check_new(manifest, image)
    return write(options, folder, manifest, image)


def write(options, folder, manifest, image):
    model = check_image(image, options.model, options.partition_size)
    text = manifest.text()
    say(f"Version {manifest.version}, build {manifest.build}, for the model {model}:"
        f" {pathlib.Path(image).stat().st_size} bytes, manifest {len(text)} of {manifests.ANSWER_LIMIT}.")
    if options.dry_run:
        return show(options, folder, manifest)
    put(folder, manifest, lambda: folder.publish(manifest, image))
    say(f"Written: {folder.path / image_place(manifest.build, image)}")
    say(f"Written: {folder.path / 'update.xml'}")
    return verify_written(options, folder, model)


def put(folder, manifest, write):
    """Writes; a failure says what routers get now."""
    try:
        write()
    except OSError as error:
        state = "" if folder.current() == manifest else "\n  update.xml is as it was."
        raise WriteFailure(f"{error.filename or folder.path}: {error.strerror}.{state}") from None


def show(options, folder, manifest):
    say(f"Would be written to {folder.path / 'update.xml'}:")
    say(manifest.text().decode().removesuffix("\n"))
    if options.verify is not None:
        say(f"{options.verify} was not asked: a dry run writes nothing that could be compared.")
    return 0


def rollback(options):
    if len(options.words) > 2:
        raise Refusal("rollback takes one build number.", "See --help.")
    allow_only(options, (), "rollback")
    need(options, ("out",), "rollback")
    folder = existing_folder(options, ".")
    manifest = folder.release_to_put_back(options.words[1] if len(options.words) == 2 else None)
    manifests.check_answer(manifest)
    say(f"Version {manifest.version}, build {manifest.build}, forced: routers with any other build"
        " are offered it.")
    if options.dry_run:
        return show(options, folder, manifest)
    put(folder, manifest, lambda: folder.put_back(manifest))
    say(f"Written: {folder.path / 'update.xml'}")
    return verify_written(options, folder, "")


def verify_only(options):
    allow_only(options, ("model",), "--verify without an image")
    need(options, ("out",), "--verify")
    if options.dry_run:
        raise Refusal("--dry-run: --verify alone writes nothing.", "Leave it out.")
    folder = existing_folder(options)
    model = "" if options.model is None else options.model
    if options.model is not None and not re.fullmatch("[ -~]+", model):
        raise Refusal(f"--model '{manifests.printable(model)}': it is no model name.",
                      "Give the model in plain letters and digits, such as MODEL-X, or leave it out.")
    verify.verify(options.verify, folder, model, say)
    return 0


def verify_written(options, folder, model):
    if options.verify is not None:
        verify.verify(options.verify, folder, model, say)
    return 0


def say(text):
    try:
        print(text, flush=True)
    except OSError as error:
        # What is still in the buffer would be tried, and complained of, once more at the end.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        raise WriteFailure(f"standard output: {error.strerror}.") from None
