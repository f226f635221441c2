"""Prints the frames of FrameTest.cpp as scapy makes them: a name and the bytes on each line."""

from scapy.config import conf

conf.ipv6_enabled = True
# pylint: disable=wrong-import-position
from scapy.contrib.igmp import IGMP
from scapy.contrib.igmpv3 import IGMPv3, IGMPv3gr, IGMPv3mq, IGMPv3mr
from scapy.contrib.mpls import MPLS, EoMCW
from scapy.contrib.pim import PIMv2Hdr
from scapy.contrib.spbm import SPBM
from scapy.layers.inet import IP, UDP
from scapy.layers.inet6 import (
    ICMPv6ND_NA, ICMPv6ND_NS, ICMPv6ND_RA, ICMPv6ND_Redirect, ICMPv6ND_RS, ICMPv6NDOptDstLLAddr,
    ICMPv6NDOptMTU, ICMPv6NDOptPrefixInfo, ICMPv6NDOptSrcLLAddr, IPv6)
from scapy.layers.l2 import ARP, GRE, Ether
from scapy.layers.vrrp import VRRP, VRRPv3
from scapy.layers.vxlan import VXLAN
from scapy.packet import Raw

MAC, MAC2, GROUP_MAC = "00:00:5e:00:53:01", "00:00:5e:00:53:02", "01:00:5e:00:00:12"
A, B, LL, LL2 = "192.0.2.1", "192.0.2.2", "fe80::1", "fe80::2"


def ether(ether_type=None, src=MAC):
    frame = Ether(dst=MAC2, src=src)
    if ether_type is not None:
        frame.type = ether_type
    return frame


def ip(dst, ttl, proto):
    return ether() / IP(src=A, dst=dst, ttl=ttl, proto=proto, id=0)


def ip6(dst, src=LL, **fields):
    return ether() / IPv6(src=src, dst=dst, hlim=255, **fields)


INNER = Ether(dst=MAC, src=MAC2) / IP(src=B, dst=A, id=0) / UDP(sport=1024, dport=40000) / Raw(b"data")
FRAMES = {
    "arp.request": ether() / ARP(op=1, hwsrc=MAC, psrc=A, hwdst="00:00:00:00:00:00", pdst=B),
    "vrrp2": ip("224.0.0.18", 255, 112) / VRRP(
        vrid=7, priority=200, adv=3, addrlist=[A, B], auth1=0, auth2=0),
    "vrrp3": ip("224.0.0.18", 255, 112) / VRRPv3(vrid=7, priority=200, adv=300, addrlist=[A, B]),
    "vrrp6": ip6("ff02::12", nh=112) / VRRPv3(vrid=7, priority=200, adv=300, addrlist=[LL2]),
    "igmp1.query": ip("224.0.0.1", 1, 2) / IGMP(type=0x11, mrcode=0, gaddr="0.0.0.0"),
    "igmp2.report": ip("239.1.2.3", 1, 2) / IGMP(type=0x16, mrcode=0, gaddr="239.1.2.3"),
    "igmp3.query": ip("239.1.2.3", 1, 2) / IGMPv3(type=0x11, mrcode=100) / IGMPv3mq(
        gaddr="239.1.2.3", s=1, qrv=2, qqic=125, srcaddrs=[A, B]),
    "igmp3.report": ip("224.0.0.22", 1, 2) / IGMPv3(type=0x22, mrcode=0) / IGMPv3mr(records=[
        IGMPv3gr(rtype=4, maddr="239.1.2.3", srcaddrs=[]),
        IGMPv3gr(rtype=1, maddr="232.1.2.3", srcaddrs=[A, B])]),
    "pim.hello": ip("224.0.0.13", 1, 103) / PIMv2Hdr(type=0) / Raw(b"\0\1\0\2\0\x69"),
    "gre": ip(B, 64, 47) / GRE() / IP(src=B, dst=A, id=0) / UDP(sport=1024, dport=40000),
    "gre.words": ip(B, 64, 47) / GRE(
        proto=0x6558, chksum_present=1, key_present=1, seqnum_present=1, key=0x12345678,
        sequence_number=9) / INNER,
    "vxlan": ip(B, 64, 17) / UDP(sport=49152, dport=4789) / VXLAN(flags=8, vni=0xabcdef) / INNER,
    "cw": ether() / MPLS(label=100, cos=0, s=1, ttl=64) / EoMCW(reserved=0x3f, seq=7)
          / Raw(bytes(range(59))),
    "mim": ether(0x88e7) / SPBM(prio=5, dei=1, isid=0xabcdef) / INNER,
    "nd.rs": ip6("ff02::2") / ICMPv6ND_RS() / ICMPv6NDOptSrcLLAddr(lladdr=MAC),
    "nd.ra": ip6("ff02::1") / ICMPv6ND_RA(
        chlim=64, M=1, O=1, prf=1, routerlifetime=1800, reachabletime=5, retranstimer=6)
        / ICMPv6NDOptMTU(mtu=9000) / ICMPv6NDOptPrefixInfo(
            prefix="2001:db8::", prefixlen=64, L=1, A=1, validlifetime=2592000,
            preferredlifetime=604800),
    "nd.ns": ip6("ff02::1:ff00:2") / ICMPv6ND_NS(tgt=LL2) / ICMPv6NDOptSrcLLAddr(lladdr=MAC),
    "nd.na": ip6(LL2) / ICMPv6ND_NA(R=1, S=1, O=1, tgt=LL) / ICMPv6NDOptDstLLAddr(lladdr=MAC),
    "nd.redirect": ip6(LL2) / ICMPv6ND_Redirect(tgt=LL, dst="2001:db8::1"),
}

for name, frame in FRAMES.items():
    print(name, bytes(frame).hex())
