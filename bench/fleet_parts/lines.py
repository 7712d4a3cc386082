# SPDX-License-Identifier: ISC
"""Log lines of many routers, as nginx would write them; no router runs here."""
import datetime
import functools

QUESTION = "{at}\t200\t525\tsn={sn}\tfw={fw}\tmodel={model}\t{offer}\t{address}\t/model-x/{offer}/update.xml\n"


@functools.lru_cache(4096)
def minute(number):
    return datetime.datetime.fromtimestamp(60 * number, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:")


def stamp(at):
    return f"{minute(at // 60)}{at % 60:02}+00:00"


def question(at, sn, fw, offer="stable", model="QOR,MODEL-X", address="192.0.2.10"):
    return QUESTION.format(at=stamp(at), sn=sn, fw=fw, offer=offer, model=model, address=address)
