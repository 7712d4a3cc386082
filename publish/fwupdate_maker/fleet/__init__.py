# SPDX-License-Identifier: ISC
"""What fwupdate-fleet is made of.

    command_line  the subcommands, messages, exit status
    logs          reads access logs, each line once
    state         what is known of each router, in SQLite
    report        counts it, for people and as JSON
    page          the same as one HTML file with SVG charts
    rollout       steps, their gate, nginx's configuration
    metrics       the same for Prometheus
"""
