#!/usr/bin/env python3
"""Runs benchmark programs and puts each figure of Pavo's beside its peers'.

usage: bench_table.py PROGRAMS-FILE [--figures FILE | --write FILE [--beside FILE]...]
                      [BENCHMARK-ARGUMENT...]

PROGRAMS-FILE names a program a line. A benchmark called LINE/pavo is compared with each LINE/PEER of
the same program. All figures of a program come from one run, in which repetitions of all its
benchmarks are interleaved at random; the figure is the median. The ratio says how many times faster
Pavo is. With --write, the table is also written as a Markdown page with a description of the
machine, and drawn beside it (bench_plot.py). A benchmark called GrowthLINE/BUSY/COUNT stands in a
second table, beside the same work with other numbers of endpoints. With --figures, the figures are
written for another run, whose page shows them with --beside, under the file's name.
"""

import argparse

import json
import os
import pathlib
import platform
import re
import subprocess
import sys

import bench_plot

REPETITIONS = 9

# The ratio that is wanted on x86-64, by line and peer: 1.2 is 1.2 times faster, 0.87 within 15 %.
MARKS = {
    ("IpAddrParse", "inet_pton"): 2,
    ("IpAddrPrint", "inet_ntop"): 10,
    ("Ip6AddrParse", "inet_pton"): 2.6,
    ("Ip6AddrPrint", "inet_ntop"): 8,
    ("EthAddrParse", "ether_aton_r"): 1.5,
    ("EthAddrPrint", "snprintf"): 10,
    ("IntfIdParse", "unordered_map"): 0.5,
    ("IntfIdPrint", "unordered_map"): 0.5,
    ("CompareIntfName", "pcre2_jit_match"): 0.87,
    ("LabelsAppend", "vector"): 1,
    ("LabelsPrepend", "vector"): 1,
    ("LabelsExtend", "vector"): 1,
    ("LabelsRead", "vector"): 1,
    ("LabelsAppendWithPairs", "vector"): 1,
    ("LabelsPrependWithPairs", "vector"): 1,
    ("LabelsExtendWithPairs", "vector"): 1,
    ("LabelsReadWithPairs", "vector"): 1,
    ("IpChecksum20", "plain_loop"): 1.2,
    ("IpChecksum1500", "plain_loop"): 4,
    ("IpChecksum9000", "plain_loop"): 4,
    ("Crc32_1500", "zlib"): 1,
    ("PktLife64", "malloc"): 2,
    ("PktLife1400", "malloc"): 2,
    ("PktBuild64", "malloc"): 1.8,
    ("PktBuild1400", "malloc"): 1.8,
    ("Notify1", "virtual_calls"): 0.55,
    ("Notify8", "virtual_calls"): 0.5,
    ("Notify8", "functions"): 1,
    ("Notify1", "signals2"): 5,
    ("Notify8", "signals2"): 5,
    ("Ready1", "epoll"): 0.95,
    ("Ready64", "epoll"): 0.95,
    ("Timers100000", "libevent"): 2,
    ("RawIpSend", "sendmsg"): 0.909,
    ("RawIpReceive", "recvmsg"): 0.909,
    ("RawIpReceiveBulk", "packet_a_call"): 1.2,
    ("RawIp6Send", "sendmsg"): 0.909,
    ("RawIp6Receive", "recvmsg"): 0.909,
    ("RawIp6ReceiveBulk", "packet_a_call"): 1.2,
    ("UdpSend", "sendmsg"): 0.909,
    ("UdpReceive", "recvmsg"): 0.909,
    ("UdpReceiveBulk", "recvmsg"): 1.4,
    ("UdpSendBatch", "sendmsg"): 1.1,
    ("UdpSendSegments", "sendmsg"): 2,
    ("EthRing", "pcap_next_ex"): 1,
    ("EthRing", "recvmsg"): 1.5,
    ("EthRingBulk", "pcap_dispatch"): 1,
    ("EthRingBulk", "recvmsg"): 1.5,
    ("MuxReceive", "switch"): 0.8,
    ("MuxReceiveBulk", "switch"): 0.8,
    ("BpfMatch", "pcap_offline_filter"): 0.909,
    ("NetlinkAck", "bare"): 0.909,
    ("NetlinkAck", "libmnl"): 0.909,
    ("NetlinkSessionAck", "epoll"): 0.909,
    ("NetlinkSessionAck", "bare"): 0.909,
    ("NetlinkBatch1000", "bare"): 1.3,
    ("RouteDump100k", "libnl"): 1.3,
    ("NetnsAddDelete", "bare"): 0.9,
    ("NetnsAddDelete", "ip_netns"): 1,
    ("SocketInNetns", "bare"): 0.95,
    ("TcpRetry", "bare"): 0.85,
    ("PduRead0", "epoll"): 0.9,
    ("PduRead100", "epoll"): 0.9,
    ("PduRead1400", "epoll"): 0.9,
    ("PduRead9000", "epoll"): 0.9,
    ("PduRead0", "asio"): 1.3,
    ("PduRead100", "asio"): 1.3,
    ("PduRead1400", "asio"): 1.3,
    ("PduRead9000", "asio"): 1.3,
    ("PduReadAhead0", "exact_reads"): 6,
    ("PduReadAhead100", "exact_reads"): 6,
    ("PduReadAhead1400", "exact_reads"): 4,
    ("PduReadAhead9000", "exact_reads"): 1.8,
    ("PduReadAhead0", "epoll"): 0.588,
    ("PduReadAhead100", "epoll"): 0.588,
    ("PduReadAhead1400", "epoll"): 0.714,
    ("PduReadAhead9000", "epoll"): 0.714,
    ("PduReadAhead0", "asio"): 1,
    ("PduReadAhead100", "asio"): 1,
    ("PduReadAhead1400", "asio"): 1,
    ("PduReadAhead9000", "asio"): 1,
    ("PduReadAhead0", "libevent"): 1,
    ("PduReadAhead100", "libevent"): 1,
    ("PduReadAhead1400", "libevent"): 1,
    ("PduReadAhead9000", "libevent"): 1,
    ("DataPlanePkt64", "dpdk"): 0.8,
    ("DataPlanePkt1400", "dpdk"): 1,
    ("DataPlanePktSums64", "dpdk"): 1,
    ("DataPlanePktSums1400", "dpdk"): 1,
    ("DataPlaneCheck64", "dpdk"): 1,
    ("DataPlaneCheck1400", "dpdk"): 1,
    ("DataPlaneVlan", "dpdk"): 1,
    ("PduSendNoDelay20", "sendmsg"): 20,
    ("PduSendNoDelay100", "sendmsg"): 20,
    ("DataPlaneChecksum20", "dpdk"): 0.9,
    ("DataPlaneChecksum1500", "dpdk"): 0.65,
    ("DataPlaneChecksum9000", "dpdk"): 0.65,
    ("DataPlaneCrc20", "libdeflate"): 0.9,
    ("DataPlaneCrc1500", "isal"): 0.5,
    ("DataPlaneCrc9000", "isal"): 0.5,
    ("TimerArm", "libev"): 1,
    ("TimerRearm", "libev"): 1,
    ("TimerFire", "multimap"): 1,
    ("TimerArmMixed", "libev"): 1,
    ("TimerRearmMixed", "libev"): 1,
    ("ClockArm", "libev"): 0.8,
    ("ClockRearm", "libev"): 0.8,
    ("ClockFire", "multimap"): 0.8,
    ("ClockArmMixed", "libev"): 0.8,
    ("ClockRearmMixed", "libev"): 0.8,
    ("DataPlaneEthAddrParse", "dpdk"): 2.6,
    ("PrefixSort1M", "plain_keys"): 1.1,
}


def measure(program, arguments):
    """Runs one program; returns {(line, who): nanoseconds} and the rows of growth."""
    command = [program, "--benchmark_format=json", f"--benchmark_repetitions={REPETITIONS}",
               "--benchmark_enable_random_interleaving=true", "--benchmark_min_time=0.05",
               "--benchmark_report_aggregates_only=true", *arguments]
    output = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout
    figures, growth = {}, {}
    for each in json.loads(output)["benchmarks"]:
        if each.get("error_occurred"):
            raise SystemExit(f"{each['name']}: {each['error_message']}")
        if each.get("aggregate_name") == "median":
            line, who, *rest = each["run_name"].split("/")
            if line.startswith("Growth"):
                growth.setdefault((line, who), {})[int(rest[0])] = each
            else:
                figures[line, who] = each["real_time"]
    return figures, [growth_row(*key, by_count) for key, by_count in growth.items()]


def growth_row(line, busy, by_count):
    """The times with each number of endpoints, and the memory of an endpoint among the most."""
    most = by_count[max(by_count)]
    return [line.removeprefix("Growth"), busy,
            *(f"{each['real_time']:.0f}" for _, each in sorted(by_count.items())),
            f"{most['bytes']:.0f}"]


def rows_of(figures, others):
    """The rows of the table. `others` are the figures of other runs, {(line, who): nanoseconds}."""
    for (line, who), peer in figures.items():
        if who == "pavo":
            continue
        own = figures.get((line, "pavo"))
        if own is None:
            raise SystemExit(f"{line}/{who}: there is no {line}/pavo")
        mark = MARKS.get((line, who))
        ratio = peer / own
        verdict = "" if mark is None else ("yes" if ratio >= mark else "no")
        row = [line, f"{own:.1f}", who, f"{peer:.1f}", f"{ratio:.2f}",
               "" if mark is None else f"{mark:g}", verdict]
        for other in others:
            theirs, ours = other.get((line, who)), other.get((line, "pavo"))
            row += ["" if ours is None else f"{ours:.1f}",
                    "" if theirs is None else f"{theirs / ours:.2f}"]
        yield row


HEADINGS = ["work", "Pavo, ns", "beside", "ns", "ratio", "wanted", "met"]
GROWTH_HEADINGS = ["work, ns", "busy", "1", "100", "1,000", "10,000", "bytes each"]


def show(headings, rows):
    widths = [max(len(row[i]) for row in [headings, *rows]) for i in range(len(headings))]
    for row in [headings, *rows]:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def machine():
    """The processor and the kernel."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*: (.*)", file.read())
    return (f"{model.group(1) if model else 'unknown processor'}, {os.cpu_count()} cores, "
            f"Linux {platform.release()} {platform.machine()}")


def compiler():
    return subprocess.run(["c++", "--version"], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.splitlines()[0] + ", -O2"


def table(headings, rows):
    return ["| " + " | ".join(each) + " |" for each in [headings, ["---"] * len(headings), *rows]]


def page(headings, rows, growth, plot):
    lines = ["# Benchmarks", "",
             "Written by `./dev bench --write docs/benchmarks.md`: medians of repetitions, Pavo and",
             "its peers in turn in one run. The ratio says how many times faster Pavo is; 0.91 is",
             "within 10 %. \"Wanted\" is the ratio that the line has to reach on x86-64, if it has one.",
             "Of the last columns, in a run each, \"portable\" is Pavo with what every processor of the",
             "kind has (`Cpu::featuresIs(0)`; its peers still use all there is), and \"i386\" is a",
             "32-bit program; they are empty where a line has no such code, or no such peer.",
             "A line of socket work is a burst of 64 packets; those of 9,000 bytes are bursts of 32. The",
             "peers packet_a_call, one, untapped, exact_reads, get_pdu_size, queued, each and member_hash",
             "are Pavo itself: without bulk reads, with one descriptor instead of 10,000, without a tap,",
             "without read-ahead, with a framing that is a class, with an outgoing queue, one message a",
             "call, and with `hash()` in place of `std::hash`.",
             "Lines named DataPlane, Timer and Clock are measured where their peers are installed.", "",
             f"{machine()}, {compiler()}.", "",
             f"![The ratio to the best peer, by line]({plot})", "", *table(headings, rows)]
    if growth:
        lines += ["", "With more endpoints, of which one is busy, or each in turn: nanoseconds for",
                  "one event, datagram of 64 bytes or message of 100, and the bytes of an endpoint",
                  "after it was busy, without the kernel's. An endpoint keeps the packets of a batch",
                  "until the next one, unless it is asked to free them (UdpFreedBatch).", "",
                  *table(GROWTH_HEADINGS, growth)]
    return "\n".join(lines) + "\n"


def write_page(path, headings, rows, growth):
    """Writes the page and its plot. What people add after the table, from "## " on, is kept."""
    notes = ""
    if path.exists():
        _, heading, rest = path.read_text(encoding="utf-8").partition("## ")
        notes = "\n" + heading + rest if heading else ""
    plot = path.with_suffix(".svg")
    path.write_text(page(headings, rows, growth, plot.name) + notes, encoding="utf-8")
    bench_plot.write(path, plot)


def read_figures(path):
    figures = json.loads(path.read_text(encoding="utf-8"))
    return {tuple(name.split("/")): figure for name, figure in figures.items()}


def measure_all(programs, arguments):
    figures, growth = {}, []
    for program in programs:
        print(f"bench: {os.path.basename(program)}", file=sys.stderr)
        more_figures, more_growth = measure(program, arguments)
        figures.update(more_figures)
        growth += more_growth
    return figures, sorted(growth)


def main():
    parser = argparse.ArgumentParser(allow_abbrev=False)
    parser.add_argument("programs", type=pathlib.Path)
    parser.add_argument("--figures", type=pathlib.Path)
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("--beside", type=pathlib.Path, action="append", default=[])
    options, arguments = parser.parse_known_args()
    figures, growth = measure_all(options.programs.read_text(encoding="utf-8").split(), arguments)
    if options.figures:
        named = {"/".join(name): figure for name, figure in figures.items()}
        options.figures.write_text(json.dumps(named, indent=1), encoding="utf-8")
        return
    headings = HEADINGS + [heading for path in options.beside for heading in
                           (f"{path.stem}, ns", "ratio")]
    order = list(MARKS)
    rows = sorted(rows_of(figures, [read_figures(path) for path in options.beside]),
                  key=lambda row: order.index((row[0], row[2]))
                  if (row[0], row[2]) in order else len(order))
    show(headings, rows)
    if growth:
        show(GROWTH_HEADINGS, growth)
    if options.write:
        write_page(options.write, headings, rows, growth)


if __name__ == "__main__":
    main()
