# SPDX-License-Identifier: ISC
"""What can happen to a page between two looks, and what was said wrongly about it once."""
import json
import time

import answers
from browser import WAIT, wait_until
from router import NEW
from simulated_router import PROJECT

HUNDRED_DAYS = 100 * 86400


def downloading(router, page):
    router.offer_slowly()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Downloading")


def test_tab_that_slept_through_the_update_knows_its_end(router, page):
    """The page saw neither the installation nor the restart: only the boot id tells."""
    downloading(router, page)
    page.driver.get("about:blank")
    router.release()
    router.await_installer()
    router.power_off()
    router.power_on(NEW)
    page.open()
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")


def test_connection_that_was_lost_during_the_update(router, page):
    """Nothing but silence, from the download to the session that the new boot does not know."""
    downloading(router, page)
    router.relay.fault = lambda *_: True
    page.await_text("connection", "The router does not answer.")
    assert page.text("job-title") == "Downloading", "the last view stays"
    router.release()
    router.await_installer()
    router.power_off()
    router.power_on(NEW)
    router.relay.fault = lambda *_: False
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")


def age_files(router):
    """Browsers keep a file for a tenth of its age when nobody says how long."""
    then = time.strftime("%Y%m%d%H%M", time.gmtime(time.time() - HUNDRED_DAYS))
    router.run(f"touch -t {then} /www/fwupdate/*")


def test_new_firmwares_page_takes_over_when_the_router_is_back(router, page):
    """Both pages are old files, which the browser may use without asking."""
    age_files(router)
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_text("job-text", "The router does not answer now.")  # not only its session service
    held = answers.Held("status")  # the first answer tells the page that the router is back
    router.relay.fault = held
    router.power_on(NEW)
    # The new firmware's page has another word on its button, in a file that the page imports.
    router.run("""mkdir /tmp/new; cp -R %s/web /tmp/new/; sed -i 's/"Sign in"/"Log on"/' /tmp/new/web/texts.js
        /tmp/new/web/install /www/fwupdate""" % PROJECT)
    age_files(router)
    held.release()
    page.await_text("sign-in-button", "Log on")
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")


def test_update_of_somebody_else_ends_well(router, page):
    router.offer_slowly()
    page.open_and_sign_in()
    router.run("busybox setsid ubus -t 60 call fwupdate update >/dev/null 2>&1 &")
    page.await_stage("Downloading")
    assert page.text("job-hint") == "Somebody else started this update."
    router.release()
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")


def test_account_without_rights_is_told_so(router, page):
    router.run("""printf "config login\\n\\toption username 'guest'\\n\\toption password '\\$p\\$root'\\n\\tlist read 'unauthenticated'\\n" >>/etc/config/rpcd""")
    page.open()
    page.sign_in("guest")
    page.await_text("sign-in-fault", "This account may not use this page.")
    assert not page.visible("sign-in-why")
    page.sign_in()
    page.await_visible("versions")


def test_whatever_is_thrown_the_page_goes_on(router, page):
    downloading(router, page)
    page.script("document.getElementById('job-title').id = 'gone'")
    page.await_visible("broken")
    looks = []
    router.relay.fault = lambda name, method, browser: looks.append(method)
    wait_until(lambda: len(looks) >= 2, "the page has looked twice since")
    page.script("document.getElementById('gone').id = 'job-title'")
    page.await_stage("Downloading")
    assert any("TypeError" in complaint for complaint in page.complaints()), "it was thrown"


def test_failure_that_was_read_is_read_in_every_tab(router, page):
    router.make_image(model="MODEL-Y")
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("The update failed")
    other = page.second_tab()
    other.sign_in()
    other.await_stage("The update failed")
    router.run("""set -- /tmp/fwupdate-cli/job.*/end; read -r one two ended <"$1"; echo "$one $two $((ended - 7 * 86400 - 9))" >"$1" """)
    other.await_text("job-when", "That was 7 days ago.")
    other.click("close-job")
    page.look()
    page.await_hidden("job")


def test_session_service_that_is_gone_during_a_download(router, page):
    downloading(router, page)
    router.relay.fault = lambda name, method, browser: bool(method) and not browser.sendall(answers.error(-32000))
    page.await_text("connection", "The router’s session service (rpcd) does not answer. This was so at")
    assert page.text("job-title") == "Downloading"
    assert not page.visible("job-hint") and not page.visible("read-only")
    router.relay.fault = lambda *_: False
    page.await_hidden("connection")
    assert page.text("job-title") == "Downloading"


def test_broker_that_was_restarted_brings_no_advice_to_restart_the_router(router, page):
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Installing")
    router.relay.fault = answers.instead_of("status", answers.error(-32603))
    page.await_text("job-text", "The router answers, but not all of its services are there yet.")
    assert "estart the router" not in page.everything()


def test_signing_in_shows_that_it_is_at_work(router, page):
    page.open()
    held = answers.Held("login")
    router.relay.fault = held
    page.sign_in()
    assert held.came.wait(WAIT)
    assert page.text("sign-in-button") == "Signing in …" and not page.find("sign-in-button").is_enabled()
    held.release()
    page.await_visible("versions")


def test_gateway_without_ubus_names_the_package(router, page):
    page.open()
    missing = b"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n"
    router.relay.fault = answers.instead_of("login", missing)
    page.sign_in()
    page.await_text("sign-in-fault", "The router has no /ubus: the package uhttpd-mod-ubus is missing.")


def test_known_error_numbers_are_shown(router, page):
    page.open_and_sign_in()
    for raw, number in ((answers.error(-32603), "-32603"), (answers.http(b'{"result":[9]}'), "9")):
        router.relay.fault = answers.instead_of("status", raw)
        page.await_text("connection", f"The router could not do that (error {number}). This page keeps trying.")


def test_backup_is_linked_only_where_there_is_one(router, page):
    router.offer()
    page.open_and_sign_in()
    page.click("update")
    page.await_visible("question")
    assert not page.visible("backup")
    page.click("no")
    router.run("mkdir -p /www/cgi-bin/luci/admin/system; echo x | tee /www/index.html >/www/cgi-bin/luci/admin/system/flash")
    page.open()
    page.await_visible("home")
    page.await_text("verdict", "A new version")
    page.click("update")
    page.await_visible("backup")


def test_check_that_failed_is_repeated_by_itself(router, page):
    router.run("p=$(cat /var/run/nginx.pid); while kill $p; do sleep 0.01; done")
    page.open()
    page.sign_in()
    page.await_text("verdict", "The update server gave no usable answer.")
    assert not page.visible("update") and not page.visible("anyway-part")
    asked = []
    router.relay.fault = lambda name, method, browser: asked.append(method)
    page.put_clock_forward(0.9)
    page.look_now()
    wait_until(lambda: "status" in asked, "the page looks")
    assert "check" not in asked
    page.put_clock_forward(0.2)
    page.look_now()
    wait_until(lambda: "check" in asked, "the page asks the server again")


# What the page's timers wait for, in milliseconds.
TIMERS = """
    const [set, clear] = [setTimeout, clearTimeout];
    window.timers = new Map();
    window.setTimeout = (what, wait, ...more) => {
        const id = set(() => { timers.delete(id); what(...more); }, wait);
        timers.set(id, wait);
        return id;
    };
    window.clearTimeout = (id) => { timers.delete(id); clear(id); };
"""


def test_page_looks_by_itself(router, page):
    """Without the nudges that the other tests give it: every three seconds while something runs; seldom
    when nothing does, and then not at all in a hidden tab."""
    looks = []
    page.open_and_sign_in()
    page.script(TIMERS)
    router.relay.fault = lambda name, method, browser: looks.append(method)

    def await_timers(*wanted):
        def waits():
            return page.script("return [...timers.values()]")
        wait_until(lambda: "status" in looks and waits() == [*wanted], lambda: f"after a look {wanted}, not {waits()}")
        looks.clear()

    def hide(hidden):
        page.script("Object.defineProperty(document, 'hidden', { configurable: true, get: () => arguments[0] })", hidden)

    page.look_now()
    await_timers(15000)
    hide(True)
    page.script("document.getElementById('check').click()")
    await_timers()
    hide(False)
    router.offer_slowly()
    router.run("fwupdate-cli update --yes --detach")
    page.look_now()
    page.await_stage("Downloading")
    hide(True)
    looks.clear()
    wait_until(lambda: len(looks) >= 2, "the page has looked twice")
    assert set(looks) == {"status"}, "a look is one call"
    await_timers(3000)


def put_guard_file(router, name, text):
    router.run(f"mkdir -p /tmp/fwupdate-guard; chmod 755 /tmp/fwupdate-guard; printf '%s\\n' '{text}' >/tmp/fwupdate-guard/{name}")


def test_refusal_of_the_guard_is_told_with_its_reason(router, page):
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Installing")
    ended = json.loads(router.run("fwupdate-cli result --json"))["ended"]
    put_guard_file(router, "refused", f"{ended + 2} not signed by a key of this router")
    page.await_stage("The firmware was refused")
    assert page.text("job-text") == "Nothing was changed. The reason: not signed by a key of this router"


def test_version_that_was_taken_back_is_told(router, page):
    put_guard_file(router, "outcome", "taken-back 174200000 30-server r1300")
    page.open()
    page.sign_in()
    page.await_stage("The new version was taken back")
    assert page.text("job-text") == "Build 174200000 did not pass a check: the update server answers (30-server). The router runs version r1234."
    page.click("close-job")
    page.await_hidden("job")


def test_trial_is_shown_with_its_checks(router, page):
    uptime = int(float(open("/proc/uptime", encoding="ascii").read().split()[0]))
    put_guard_file(router, "trial", f"{uptime + 210}\n10-daemon ok\n30-server waiting")
    page.open()
    page.sign_in()
    page.await_stage("On trial")
    assert page.text("job-list").splitlines() == ["✓ the update service answers (10-daemon)", "… the update server answers (30-server)"]
    assert not page.visible("versions")
