"""Prints what ip(8) has of a namespace, in the lines of KernelText.h."""

import json
import subprocess
import sys

SCOPES = {"global": 0, "link": 253, "host": 254}


def ask(*question):
    answer = subprocess.run(
        ["ip", "-n", sys.argv[1], "-j", *question], check=True, capture_output=True, text=True)
    return json.loads(answer.stdout or "[]")


def in_order(texts):
    return "".join(f"{each}, " for each in sorted(texts))


def number(fields, name, otherwise=0):
    return int(str(fields.get(name, otherwise)), 0)


def show(*parts):
    print(*parts, "")


def hop(fields, indices):
    gateway = fields["via"]["host"] if "via" in fields else fields.get("gateway", "-")
    on_link = int("onlink" in fields.get("flags", []))
    return f"{gateway} {indices.get(fields.get('dev'), 0)} {number(fields, 'weight', 1)} {on_link} "


def main():
    links = ask("-d", "link", "show")
    indices = {each["ifname"]: each["ifindex"] for each in links}
    for each in links:
        flags = in_order(flag for flag in each["flags"] if flag != "M-DOWN")  # Of the other end.
        show("link", each["ifindex"], each["ifname"], each["address"], each["mtu"], flags,
             each["operstate"].lower(), "in", indices.get(each.get("master"), 0),
             each.get("linkinfo", {}).get("info_kind", ""))
    for link in ask("address", "show"):
        for each in link["addr_info"]:
            show("address", link["ifindex"], each.get("local", "-"), each["prefixlen"],
                 each.get("address", "-"), each.get("broadcast", "-"), SCOPES[each["scope"]],
                 int(each.get("tentative", False)), int(each.get("dadfailed", False)))
    for each in ask("neigh", "show"):
        show("neighbour", indices[each["dev"]], each["dst"],
             each.get("lladdr", "00:00:00:00:00:00"), each["state"][0].lower())
    for family in ("-4", "-6"):
        for each in ask(family, "-N", "-d", "route", "show", "table", "all"):
            hops = each.get("nexthops", []) + ([each] if "dev" in each else [])
            show("route", each["dst"], number(each, "table", 254), number(each, "metric"),
                 number(each, "tos"), number(each, "type", 1), number(each, "protocol"),
                 number(each, "scope"), each.get("prefsrc", "-"), "via",
                 in_order(hop(next_hop, indices) for next_hop in hops))


main()
