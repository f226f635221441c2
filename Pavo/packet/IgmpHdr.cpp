#include "Pavo/packet/IgmpHdr.h"

namespace Pavo {

namespace {

PktErrors queryError(const IpMsg& msg, const IgmpHdr& igmp) {
    if (msg.bytes != sizeof(IgmpHdr)) {
        const PktErrors error = msg.hdr<Igmp3QueryHdr>().error();
        if (error != PktErrors::noError) {
            return PktErrors::badIgmpLen;
        }
    }
    return igmp.group().isAny() || igmp.group().isMulticast() ? PktErrors::noError
                                                              : PktErrors::badIgmpGroup;
}

PktErrors report3Error(const IpMsg& msg) {
    uint32_t at = sizeof(Igmp3ReportHdr);
    for (uint32_t left = msg.hdr<Igmp3ReportHdr>()->recordCount(); left != 0; --left) {
        const HdrView<IgmpRecordHdr> record = msg.hdr<IgmpRecordHdr>(at);
        if (!record) {
            return PktErrors::badIgmpLen;
        }
        if (!record->group().isMulticast()) {
            return PktErrors::badIgmpGroup;
        }
        at += record->totalBytes();
    }
    return PktErrors::noError;
}

PktErrors messageError(const IpMsg& msg, const IgmpHdr& igmp) {
    if (msg.checksum(msg.bytes) != IpChecksum()) {
        return PktErrors::badIgmpChecksum;
    }
    switch (igmp.type()) {
        case IgmpType::query:
            return queryError(msg, igmp);
        case IgmpType::report1:
        case IgmpType::report2:
        case IgmpType::leave:
            return igmp.group().isMulticast() ? PktErrors::noError : PktErrors::badIgmpGroup;
        case IgmpType::report3:
            return report3Error(msg);
        default:
            return PktErrors::badIgmpType;
    }
}

}  // namespace

HdrView<IgmpHdr> checkIgmp(const IpMsg& msg) {
    if (msg.protocol != IpProtocolNumber::igmp || msg.dst.af() == ipv6) {
        return PktErrors::nonIgmpProto;
    }
    const HdrView<IgmpHdr> igmp = msg.wholeHdr<IgmpHdr>();
    const PktErrors error = igmp ? messageError(msg, *igmp) : igmp.error();
    return error == PktErrors::noError ? igmp : HdrView<IgmpHdr>(error);
}

}  // namespace Pavo
