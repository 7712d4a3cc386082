# SPDX-License-Identifier: ISC
"""The folder that the update server serves.

    FOLDER/update.xml                       what routers get when they ask
    FOLDER/releases/BUILD/IMAGE             every release that was published stays
    FOLDER/releases/BUILD/IMAGE.sha256      as `sha256sum -c` reads it
    FOLDER/releases/BUILD/update.xml        as it was published, for a rollback

A release's image never changes under its name, so it may be cached for ever, and a
router that is still downloading is not disturbed by the next release. A release is kept
as one of this folder once routers were offered it: what a stop in the middle left
behind before that may be replaced.
"""
from __future__ import annotations

import contextlib
import dataclasses
import fcntl
import filecmp
import hashlib
import os
import pathlib
import re
import stat
import time
from typing import BinaryIO, Callable, Iterator

from ..refusal import Refusal
from . import manifest as manifests
from .image import checked_model, mapped
from .manifest import MANIFEST, Manifest

RELEASES = "releases"
CHECKSUM = ".sha256"
LOCK_LOOK = 0.1  # seconds between two looks at a lock that another one holds

FOLDER_REMEDY = "Give the folder that the server serves, such as /srv/update/model-x."


class Busy(Exception):
    """Another fwupdate-publish works in the folder, and went on for too long."""


def image_place(build: str, image: str) -> str:
    """The image's path below the folder, which is also the end of its URL."""
    return f"{RELEASES}/{build}/{pathlib.Path(image).name}"


def check_image_name(image: str) -> None:
    name = pathlib.Path(image).name
    if not re.fullmatch(r"[A-Za-z0-9_~+-][A-Za-z0-9._~+-]*", name):
        raise Refusal(f"image name '{manifests.printable(name)}': it begins with a dot, or holds a"
                      " character that needs escaping in a URL.",
                      "Rename the file; letters, digits and . _ ~ + - are fine.")
    if name == MANIFEST or name.endswith(CHECKSUM):
        raise Refusal(f"image name '{name}': this is the name of a manifest or a checksum.", "Rename the file.")


class Folder:
    def __init__(self, path: str) -> None:
        self.name = str(path)
        self.path = pathlib.Path(path)

    def check_place(self, *written: str) -> None:
        """Refuses a place where there is no folder and none can be made. `written` are
        the folders below it, or ".", that have to be writable."""
        if self.name == "":
            raise Refusal("--out '': it names no folder.", FOLDER_REMEDY)
        for name in (".", *written):
            self._check_folder(self.path / name, bool(written))

    def _check_folder(self, path: pathlib.Path, writing: bool) -> None:
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

    def check_there(self) -> None:
        if not self.path.is_dir():
            raise Refusal(f"--out '{self.name}': there is no such folder.", FOLDER_REMEDY)

    def current(self) -> Manifest | None:
        """What routers get now."""
        return self._read(self.path / MANIFEST)

    def kept(self) -> list[str]:
        """The build numbers that routers were offered, lowest first."""
        found = self.path.glob(f"{RELEASES}/*/{MANIFEST}")
        return sorted((p.parent.name for p in found if manifests.is_build(p.parent.name)), key=int)

    def release(self, build: str) -> Manifest | None:
        return self._read(self.path / RELEASES / build / MANIFEST)

    def image(self, manifest: Manifest) -> pathlib.Path:
        return self.path / image_place(manifest.build, manifest.url)

    def there(self) -> list[str]:
        """The kept builds that could be put back: their image is there."""
        return [build for build in self.kept() if self.image(self.release(build)).is_file()]  # type: ignore[arg-type]

    def last_image(self) -> pathlib.Path | None:
        """The image that routers are offered now, when it is there."""
        current = self.current()
        path = self.image(current) if current else None
        return path if path and path.is_file() and path.stat().st_size else None

    def last_model(self) -> str | None:
        path = self.last_image()
        if path is None:
            return None
        try:
            with mapped(path) as image:
                return checked_model(str(path), image)
        except Refusal:
            return None

    def base(self, manifest: Manifest | None) -> str | None:
        """The address of the folder, as the manifest of a release gives it."""
        end = "/" + image_place(manifest.build, manifest.url) if manifest else ""
        return manifest.url[:-len(end)] if manifest and manifest.url.endswith(end) else None

    def check_new(self, manifest: Manifest, image: str) -> None:
        """Refuses a release that would change an old one, or that routers would not take."""
        current = self.current()
        kept = self.kept()
        offered = manifest.build in [*kept, current.build if current else ""]
        others = [p.name for p in self._others(manifest, image)]
        if offered and others:
            raise another_image(manifest.build)
        # After a rollback too: some routers may still run what was taken back.
        highest = max([*kept, current.build if current else "0"], key=int)
        if int(manifest.build) < int(highest) and not manifest.force:
            raise Refusal(f"build number '{manifest.build}': routers were offered {highest}, and those"
                          " that run it take no lower one.",
                          f"Give a number above {highest}; 'rollback' puts an old release back,"
                          " and --force offers this one as it is.")

    def _others(self, manifest: Manifest, image: str) -> list[pathlib.Path]:
        """The images that the release's folder holds besides this one."""
        place = self.path / image_place(manifest.build, image)
        if not place.parent.is_dir():
            return []
        own = (place.name, place.name + CHECKSUM, MANIFEST)
        return [p for p in place.parent.iterdir() if p.name not in own and not p.name.endswith(".part")]

    def check_same(self, manifest: Manifest, image: pathlib.Path, name: str) -> None:
        """Refuses another image for a build that routers were offered already."""
        place = self.path / image_place(manifest.build, name)
        current = self.current()
        offered = manifest.build in [*self.kept(), current.build if current else ""]
        if offered and place.exists() and not filecmp.cmp(place, image, shallow=False):
            raise another_image(manifest.build)

    def publish(self, manifest: Manifest, name: str, write: Callable[[BinaryIO], object],
                check: Callable[[pathlib.Path], object]) -> None:
        """Image first, manifest last: what the manifest names is always there. `write`
        writes the image called `name`; `check` refuses what came of it before it is used.
        Within locked()."""
        self.check_new(manifest, name)
        place = self.path / image_place(manifest.build, name)

        def check_copy(part: pathlib.Path) -> None:
            check(part)
            self.check_same(manifest, part, name)

        with self._new_removed(place) as done:
            make_folder(place.parent)
            replace(place, write, check_copy)
            for other in self._others(manifest, name):
                other.unlink()
            sum_line = f"{checksum(place)}  {place.name}\n".encode()
            replace(place.with_name(place.name + CHECKSUM), lambda target: target.write(sum_line))
            self.put(manifest)
            done()
        replace(place.with_name(MANIFEST), lambda target: target.write(manifest.text()))

    def put(self, manifest: Manifest) -> None:
        """Offers this to routers from now on. Within locked()."""
        replace(self.path / MANIFEST, lambda target: target.write(manifest.text()))

    def _keep(self) -> None:
        """Makes up for a publishing that was stopped right after its manifest was live."""
        current = self.current()
        if current and self.image(current).is_file() and self.release(current.build) is None:
            text = current.text()
            replace(self.image(current).with_name(MANIFEST), lambda target: target.write(text))

    def release_to_put_back(self, build: str | None, base: str | None) -> Manifest:
        """The kept Manifest of `build`, or of the release below the current one; forced,
        because a router takes a lower build number only then. Within locked()."""
        there, current = self.there(), self.current()
        listed = f"Kept are: {', '.join(there) or 'none'}."
        if build is None:
            if current and current.force and current.build in there and current.build != there[-1]:
                raise Refusal(f"rollback: build {current.build} was put back already.",
                              f"Say which build you want. {listed}")
            below = [k for k in self.kept() if current and int(k) < int(current.build)]
            if not below:
                raise Refusal(f"folder '{self.path}': it keeps no release before"
                              f" {current.build if current else 'the first'}.", listed)
            build = below[-1]
        release = self.release(build) if build in self.kept() else None
        if release is None:
            raise Refusal(f"build number '{manifests.printable(build)}': the folder '{self.path}'"
                          " does not keep it.", listed)
        if build not in there:
            raise Refusal(f"build number '{build}': its image '{self.image(release)}' is gone.",
                          f"Put it back there, or choose another release. {listed}")
        self.check_unchanged(release)
        base = base or self.base(current) or self.base(release)
        url = release.url if base is None else f"{base}/{image_place(build, release.url)}"
        return dataclasses.replace(release, force=True, url=url)

    def check_unchanged(self, release: Manifest) -> None:
        """Refuses a release whose image is not the one that was published."""
        path = self.image(release)
        try:
            wanted = path.with_name(path.name + CHECKSUM).read_text(errors="replace").split(" ")[0]
        except FileNotFoundError:
            with mapped(path) as image:  # published before checksums were kept
                checked_model(str(path), image)
            return
        if checksum(path) != wanted:
            raise Refusal(f"build number '{release.build}': its image '{path}' is not the one that was published;"
                          " its checksum is another.", "Put the right file back, or choose another release.")

    def prune(self, keep: int, dry: bool) -> list[str]:
        """Removes all but the newest `keep` releases and the current one. Within locked()."""
        current = self.current()
        gone = [b for b in self.kept()[:-keep] if current is None or b != current.build]
        for build in gone if not dry else []:
            folder = self.path / RELEASES / build
            (folder / MANIFEST).unlink()
            for path in folder.iterdir():
                path.unlink()
            folder.rmdir()
        return gone

    @staticmethod
    def _read(path: pathlib.Path) -> Manifest | None:
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

    @contextlib.contextmanager
    def _new_removed(self, place: pathlib.Path) -> Iterator[Callable[[], None]]:
        """What a release that never came to be has made is removed again. Yields what to
        call once it has come to be."""
        finished: list[bool] = []
        new_files = [p for p in (place, place.with_name(place.name + CHECKSUM)) if not p.exists()]
        new_folders = [p for p in (place.parent, place.parent.parent) if not p.exists()]
        try:
            yield lambda: finished.append(True)
        except BaseException:
            with contextlib.suppress(OSError):
                for path in new_files if not finished else []:
                    path.unlink(missing_ok=True)
                for folder in new_folders:
                    folder.rmdir()  # only when nothing is in it
            raise

    @contextlib.contextmanager
    def locked(self, wait: float, say: Callable[[str], object]) -> Iterator[None]:
        """Nobody else changes the folder meanwhile. Busy after `wait` seconds."""
        new = [folder for folder in (self.path, *self.path.parents) if not folder.exists()]
        make_folder(self.path)
        descriptor = os.open(self.path, os.O_RDONLY | os.O_DIRECTORY)
        try:
            lock(descriptor, wait, lambda: say(f"Another fwupdate-publish works in {self.path};"
                                               f" waiting for it, at most {wait:g} seconds."))
            self._keep()
            yield
        except BaseException:
            with contextlib.suppress(OSError):
                for folder in new:
                    folder.rmdir()
            raise
        finally:
            os.close(descriptor)


def another_image(build: str) -> Refusal:
    return Refusal(f"build number '{build}': it was published with another image."
                   " A router that runs it would never take this one.",
                   "Give the image a build number of its own.")


def lock(descriptor: int, wait: float, tell: Callable[[], object]) -> None:
    end = time.monotonic() + wait
    told = False
    while True:
        try:
            return fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            if time.monotonic() >= end:
                raise Busy(f"another fwupdate-publish still works in this folder after {wait:g} seconds;"
                           " nothing was changed. --wait gives it longer.") from None
        if not told:
            tell()
            told = True
        time.sleep(LOCK_LOOK)


def checksum(path: pathlib.Path) -> str:
    digest = hashlib.sha256()
    with open(path, "rb") as file:
        while piece := file.read(1 << 20):
            digest.update(piece)
    return digest.hexdigest()


def make_folder(path: pathlib.Path) -> None:
    """Makes it, and the folders above that are missing, so that a web server can read them
    whatever the umask is."""
    for folder in reversed([p for p in (path, *path.parents) if not p.exists()]):
        folder.mkdir(0o755, exist_ok=True)
        folder.chmod(stat.S_IMODE(folder.stat().st_mode) | 0o755)


def replace(path: pathlib.Path, write: Callable[[BinaryIO], object],
            check: Callable[[pathlib.Path], object] | None = None) -> None:
    """The file appears under its name whole and on disk, or not at all."""
    try:
        replace_part(path, path.with_name(f".{path.name}.part"), write, check)
    except OSError as error:
        # A full disk does not say which file did not fit.
        raise OSError(error.errno, error.strerror, str(path)) from None


def replace_part(path: pathlib.Path, part: pathlib.Path, write: Callable[[BinaryIO], object],
                 check: Callable[[pathlib.Path], object] | None) -> None:
    try:
        with open(part, "wb") as target:
            write(target)
            os.fchmod(target.fileno(), stat.S_IMODE(path.stat().st_mode) if path.exists() else 0o644)
            target.flush()
            os.fsync(target.fileno())
        if check is not None:
            check(part)
        os.replace(part, path)
    except BaseException:
        part.unlink(missing_ok=True)
        raise
    descriptor = os.open(path.parent, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
