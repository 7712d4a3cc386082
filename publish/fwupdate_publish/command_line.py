# SPDX-License-Identifier: ISC
"""fwupdate-publish: arguments, messages and exit status.

0 done; 1 something failed on the way; 2 the input is refused and nothing changed.
"""
import argparse
import pathlib
import re
import sys

from . import manifest as manifests
from . import verify
from .folder import Folder, check_image_name, image_place
from .image import check_image
from .manifest import Manifest
from .refusal import Refusal

FAILED, REFUSED = 1, 2

DESCRIPTION = """\
Publishes firmware for routers that run fwupdate: writes the image and the manifest
update.xml into the folder that the update server serves. Whatever a router would cut,
misread or reject is refused, with the reason.

  fwupdate-publish IMAGE --version V --build N --url BASE --out DIR   publish a release
  fwupdate-publish rollback [BUILD] --out DIR                         put an earlier one back
  fwupdate-publish --verify URL --out DIR                             ask the server and compare
"""


def number_of_bytes(text):
    """"0x1800000", "25165824", "24M": a size in bytes."""
    match = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[0-9]+)([KM]?)", text, re.ASCII)
    size = int(match.group(1), 0 if match.group(1)[:2] in ("0x", "0X") else 10) if match else 0
    if size == 0:
        raise argparse.ArgumentTypeError(
            f"'{text}' is no size; give bytes, such as 25165824, 0x1800000 or 24M")
    return size << {"": 0, "K": 10, "M": 20}[match.group(2)]


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.exit(REFUSED, f"fwupdate-publish: {message}.\n  See --help.\n")


def parser():
    parser = Parser(
        prog="fwupdate-publish", description=DESCRIPTION, add_help=False, allow_abbrev=False,
        usage=argparse.SUPPRESS, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("words", nargs="*", help=argparse.SUPPRESS)
    add = parser.add_argument
    add("--out", metavar="DIR", help="the folder that the server serves")
    add("--version", metavar="TEXT", help="the version as people read it, at most 19 bytes")
    add("--build", metavar="N", help="the image's own build date, a number of at most 9 digits")
    add("--url", metavar="BASE", help="the address at which routers find the folder")
    add("--notes", metavar="FILE", help="release notes, at most 511 bytes; - reads standard input")
    add("--model", metavar="NAME", help="refuse an image that is made for another model")
    add("--partition-size", metavar="BYTES", type=number_of_bytes,
        help="refuse an image that is larger than the flash partition")
    add("--force", action="store_true", help="routers take it in place of any other build, not only of older ones")
    add("--dry-run", action="store_true", help="check everything, show the manifest, write nothing")
    add("--verify", metavar="URL", help="ask this manifest URL as a router does and compare every byte")
    add("--help", action="help", help="show this")
    return parser


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
    except verify.Mismatch as mismatch:
        return failed(mismatch)
    except OSError as error:
        return failed(f"{error.filename or 'writing'}: {error.strerror}.")


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


def existing_folder(options):
    """For what needs no image: --out and --verify are checked before anything is done."""
    folder = Folder(options.out)
    folder.check_place()
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
            (check_image_name, image),
            (check_image_file, image, options),
            (manifests.check_build, options.build),
            (manifests.check_version, options.version),
            (manifests.check_notes, notes),
            (manifests.check_base_url, options.url),
            (folder.check_place,),
            (check_verify, options.verify)):
        try:
            check(*values)
        except Refusal as refusal:
            refusals.append(refusal)
    if refusals:
        return refused(*refusals)
    manifests.check_url(url)
    manifests.check_answer(manifest)
    folder.check_new(manifest, image)
    return write(options, folder, manifest, image)


def check_image_file(image, options):
    if not pathlib.Path(image).is_file():
        raise Refusal(f"image '{image}': there is no such file.", "Name the firmware image.")
    check_image(image, options.model, options.partition_size)


def read_notes(name):
    """The file's text without the line end at its end; "" is kept, to be refused."""
    if name is None:
        return manifests.NO_NOTES
    if name != "-" and not pathlib.Path(name).is_file():
        raise Refusal(f"notes '{name}': there is no such file.", "Name a text file, or - for standard input.")
    data = sys.stdin.buffer.read() if name == "-" else pathlib.Path(name).read_bytes()
    try:
        return data.decode().replace("\r\n", "\n").rstrip("\n")
    except UnicodeDecodeError as error:
        raise Refusal(f"notes '{name}': byte {error.start} is no UTF-8.", "Save the file as UTF-8.") from None


def write(options, folder, manifest, image):
    model = check_image(image, options.model, options.partition_size)
    text = manifest.text()
    say(f"Version {manifest.version}, build {manifest.build}, for the model {model}:"
        f" {pathlib.Path(image).stat().st_size} bytes, manifest {len(text)} of {manifests.ANSWER_LIMIT}.")
    if options.dry_run:
        return show(options, folder, manifest)
    folder.publish(manifest, image)
    say(f"Written: {folder.path / image_place(manifest.build, image)}")
    say(f"Written: {folder.path / 'update.xml'}")
    return verify_written(options, folder, model)


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
    folder = existing_folder(options)
    manifest = folder.release_to_put_back(options.words[1] if len(options.words) == 2 else None)
    manifests.check_answer(manifest)
    say(f"Version {manifest.version}, build {manifest.build}, forced: routers with any other build"
        " are offered it.")
    if options.dry_run:
        return show(options, folder, manifest)
    folder.put_back(manifest)
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
    print(text)
