# SPDX-License-Identifier: ISC
"""The folder that the update server serves.

    FOLDER/update.xml                  what routers get when they ask
    FOLDER/releases/BUILD/IMAGE        every release that was published stays
    FOLDER/releases/BUILD/update.xml   as it was published, for a rollback

A release's image never changes under its name, so it may be cached for ever, and a
router that is still downloading is not disturbed by the next release.
"""
import contextlib
import dataclasses
import fcntl
import filecmp
import os
import pathlib
import re
import shutil

from . import manifest as manifests
from .refusal import Refusal

MANIFEST = "update.xml"
RELEASES = "releases"

FOLDER_REMEDY = "Give the folder that the server serves, such as /srv/update/model-x."


def image_place(build, image):
    """The image's path below the folder, which is also the end of its URL."""
    return f"{RELEASES}/{build}/{pathlib.Path(image).name}"


def check_image_name(image):
    name = pathlib.Path(image).name
    if not re.fullmatch(r"[A-Za-z0-9_~+-][A-Za-z0-9._~+-]*", name):
        raise Refusal(f"image name '{manifests.printable(name)}': it begins with a dot, or holds a"
                      " character that needs escaping in a URL.",
                      "Rename the file; letters, digits and . _ ~ + - are fine.")
    if name == MANIFEST:
        raise Refusal(f"image name '{name}': this is the manifest's name.", "Rename the file.")


class Folder:
    def __init__(self, path):
        self.name = str(path)
        self.path = pathlib.Path(path)

    def check_place(self, *written):
        """Refuses a place where there is no folder and none can be made. `written` are
        the folders below it, or ".", that have to be writable."""
        if self.name == "":
            raise Refusal("--out '': it names no folder.", FOLDER_REMEDY)
        for name in (".", *written):
            self._check_folder(self.path / name, bool(written))

    def _check_folder(self, path, writing):
        try:
            path.stat()
        except (FileNotFoundError, NotADirectoryError):
            pass
        except OSError as error:
            raise Refusal(f"--out '{self.name}': {error.strerror}.", FOLDER_REMEDY) from None
        there = next(p for p in (path, *path.parents) if os.path.lexists(p))
        if not there.is_dir():
            raise Refusal(f"--out '{self.name}': '{there}' is no folder.", FOLDER_REMEDY)
        if writing and not os.access(there, os.W_OK | os.X_OK):
            raise Refusal(f"--out '{self.name}': the folder '{there}' cannot be written.",
                          "Make it writable for you, or give another --out folder.")

    def current(self):
        """The Manifest that routers get now, or None."""
        return self._read(self.path / MANIFEST)

    def kept(self):
        """The build numbers that can be put back, lowest first."""
        found = self.path.glob(f"{RELEASES}/*/{MANIFEST}")
        return sorted((p.parent.name for p in found if manifests.is_build(p.parent.name)), key=int)

    def check_new(self, manifest, image):
        """Refuses a release that would change an old one, or that routers would not take."""
        place = self.path / image_place(manifest.build, image)
        if place.parent.is_dir():
            others = [p.name for p in place.parent.iterdir()
                      if p.name not in (place.name, MANIFEST) and not p.name.endswith(".part")]
            if others or (place.exists() and not filecmp.cmp(place, image, shallow=False)):
                raise Refusal(f"build number '{manifest.build}': it was published with another image."
                              " A router that runs it would never take this one.",
                              "Give the image a build number of its own.")
        current = self.current()
        # After a rollback too: some routers may still run what was taken back.
        highest = max([*self.kept(), current.build if current else "0"], key=int)
        if int(manifest.build) < int(highest) and not manifest.force:
            raise Refusal(f"build number '{manifest.build}': routers were offered {highest}, and those"
                          " that run it take no lower one.",
                          f"Give a number above {highest}; 'rollback' puts an old release back,"
                          " and --force offers this one as it is.")

    def publish(self, manifest, image):
        """Image first, manifest last: what the manifest names is always there."""
        place = self.path / image_place(manifest.build, image)
        with self._new_folders_removed(place.parent), self._locked():
            self.check_new(manifest, image)
            place.parent.mkdir(parents=True, exist_ok=True)
            if not place.exists():
                with open(image, "rb") as source:
                    replace(place, lambda target: shutil.copyfileobj(source, target, 1 << 20))
            replace(place.parent / MANIFEST, lambda target: target.write(manifest.text()))
            replace(self.path / MANIFEST, lambda target: target.write(manifest.text()))

    def release_to_put_back(self, build):
        """The kept Manifest of `build`, or of the release below the current one; forced,
        because a router takes a lower build number only then."""
        kept = self.kept()
        current = self.current()
        listed = f"Kept are: {', '.join(kept) or 'none'}."
        if build is None:
            below = [k for k in kept if current and int(k) < int(current.build)]
            if not below:
                raise Refusal(f"folder '{self.path}': it keeps no release before"
                              f" {current.build if current else 'the first'}.", listed)
            build = below[-1]
        if build not in kept:
            raise Refusal(f"build number '{manifests.printable(build)}': the folder '{self.path}'"
                          " does not keep it.", listed)
        release = self._read(self.path / RELEASES / build / MANIFEST)
        image = self.path / image_place(build, release.url)
        if not image.is_file():
            raise Refusal(f"build number '{build}': its image '{image}' is gone.",
                          f"Put it back there, or choose another release. {listed}")
        return dataclasses.replace(release, force=True)

    def put_back(self, manifest):
        with self._locked():
            replace(self.path / MANIFEST, lambda target: target.write(manifest.text()))

    @staticmethod
    def _read(path):
        try:
            return manifests.parse(path.read_bytes())
        except FileNotFoundError:
            return None
        except OSError as error:
            raise Refusal(f"manifest '{path}': it cannot be read ({error.strerror}).",
                          "Make it readable for you, or give another --out folder.") from None
        except ValueError as error:
            raise Refusal(f"manifest '{path}': it {error}.",
                          "Move it away, or give another --out folder.") from None

    @staticmethod
    @contextlib.contextmanager
    def _new_folders_removed(path):
        """Folders that a failure leaves empty go again, when they were not there before."""
        new = [folder for folder in (path, *path.parents) if not folder.exists()]
        try:
            yield
        except BaseException:
            with contextlib.suppress(OSError):
                for folder in new:
                    folder.rmdir()
            raise

    @contextlib.contextmanager
    def _locked(self):
        self.path.mkdir(parents=True, exist_ok=True)
        descriptor = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY)
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX)
            yield
        finally:
            os.close(descriptor)


def replace(path, write):
    """The file appears under its name whole and on disk, or not at all."""
    try:
        replace_part(path, path.with_name(f".{path.name}.part"), write)
    except OSError as error:
        # A full disk does not say which file did not fit.
        raise OSError(error.errno, error.strerror, str(path)) from None


def replace_part(path, part, write):
    try:
        with open(part, "wb") as target:
            write(target)
            target.flush()
            os.fsync(target.fileno())
        os.replace(part, path)
    except BaseException:
        part.unlink(missing_ok=True)
        raise
    descriptor = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
