# SPDX-License-Identifier: ISC
"""What 'fwupdate-publish keys' explains."""

KEYS = """\
A router that has a key installs only images that the key's secret half has signed.

Make one
  fwupdate-publish keys make release
  release.sec is the secret half: keep it off the update server, and keep a copy in a
  safe. release.pub goes into the firmware, as /etc/fwupdate/keys/NUMBER; the command
  prints the number.

Sign
  fwupdate-publish publish IMAGE ... --sign release.sec --key release.pub
  or, where the secret key is on another machine than the folder:
  fwupdate-publish sign IMAGE --build N --sign release.sec --output SIGNED
  fwupdate-publish publish SIGNED --build N ... --key release.pub

Replace one, in time
  1. Make the second key. Publish a firmware that holds both keys, signed with the first.
  2. Wait until every router runs it: fwupdate-fleet shows the builds.
  3. Publish a firmware that holds the second key only, signed with the second.

A key that is lost
  A router that has the second key already takes images signed with that one. So make two
  at the beginning, ship both, and keep the secret half of the second in another place. Where
  only the lost key is known, somebody has to put a new one on each router by hand.

A key that was stolen
  The same as replacing one, at once: whoever has it can sign. Routers that have not run the
  firmware with the second key only are still open to it.

A plain U-Boot image cannot carry a signature: its data checksum covers whatever follows.
Build an image with metadata instead (docs/firmware-images.md)."""
