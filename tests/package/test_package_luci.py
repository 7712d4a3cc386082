# SPDX-License-Identifier: ISC
"""package/luci-app-fwupdate: what LuCI's build takes from it. Its luci.mk is not here; tests/web runs the view."""
import hashlib
import json
import re

import jsonschema

from packages import SESSION_SCHEMA
from simulated_router import PROJECT

FOLDER = PROJECT / "package/luci-app-fwupdate"
VIEW, = (FOLDER / "htdocs/luci-static/resources/view/fwupdate").glob("*.js")
MENU = json.loads((FOLDER / "root/usr/share/luci/menu.d/luci-app-fwupdate.json").read_text())
LISTS = json.loads((FOLDER / "root/usr/share/rpcd/acl.d/luci-app-fwupdate.json").read_text())


def test_view_is_named_by_its_content():
    """The browser keeps a view for as long as its name stays."""
    name = f"overview-{hashlib.md5(VIEW.read_bytes()).hexdigest()[:8]}"
    assert VIEW.name == f"{name}.js", "rename the view, in the menu and in po/ too"
    assert MENU["admin/system/fwupdate"]["action"] == {"type": "view", "path": f"fwupdate/{name}"}


def test_menu_and_access_group_have_the_packages_name():
    assert MENU["admin/system/fwupdate"]["depends"] == {"acl": ["luci-app-fwupdate"]}
    jsonschema.validate(LISTS, SESSION_SCHEMA)
    page = json.loads((PROJECT / "web/session-acl.json").read_text())["fwupdate-web"]
    group = LISTS["luci-app-fwupdate"]
    assert {kind: group[kind] for kind in ("read", "write")} == {kind: page[kind] for kind in ("read", "write")}


def entries(path):
    """msgid -> msgstr, without the head."""
    return dict(re.findall(r'^msgid "(.+)"\nmsgstr "(.*)"', path.read_text(encoding="utf-8"), re.M))


def test_each_text_can_be_translated_and_is():
    texts = set(re.findall(r"_\('([^']+)'\)", VIEW.read_text(encoding="utf-8")))
    texts |= {MENU["admin/system/fwupdate"]["title"], LISTS["luci-app-fwupdate"]["description"]}
    assert set(entries(FOLDER / "po/templates/fwupdate.pot")) == texts
    german = entries(FOLDER / "po/de/fwupdate.po")
    assert set(german) == texts and all(german.values())
    for path in FOLDER.glob("po/*/*"):
        for place, line in re.findall(r"^#: applications/luci-app-fwupdate/(.*):(\d+)$", path.read_text(encoding="utf-8"), re.M):
            text = re.search(rf"#: .*{re.escape(place)}:{line}\n(?:#.*\n)*msgid \"(.+)\"", path.read_text(encoding="utf-8")).group(1)
            assert text in (FOLDER / place).read_text(encoding="utf-8").splitlines()[int(line) - 1], f"{path.name}: {place}:{line}"


def test_makefile_is_luci_feeds():
    makefile = (FOLDER / "Makefile").read_text()
    assert "LUCI_DEPENDS:=+luci-base +fwupdate-web\n" in makefile and "LUCI_TITLE:=" in makefile
    assert makefile.endswith("# call BuildPackage - OpenWrt buildroot signature\n"), "the feed's scan looks for it"
