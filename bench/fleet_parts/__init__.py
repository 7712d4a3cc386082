# SPDX-License-Identifier: ISC
"""What bench/fleet is made of.

    server    nginx with publish/server's configuration, on a simulated machine of its own
    shares    which serial numbers a step reaches: nginx's hash, computed here
    rollout   the routers and their rollouts
    load      requests per second
"""
