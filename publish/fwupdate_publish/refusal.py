# SPDX-License-Identifier: ISC
"""Input that is not published: what is wrong with which value, and what would be right."""


class Refusal(Exception):
    """`reason` names the value and what is wrong with it, `remedy` what would be right."""

    def __init__(self, reason, remedy):
        super().__init__(f"{reason}\n  {remedy}")
