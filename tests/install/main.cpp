// An agent of another project: it reads an address, and catches the library's error across the
// library's edge.
#include <Mox/Exception.h>
#include <Mox/String.h>
#include <Pavo/IpAddr.h>

#include <iostream>

namespace {

bool isReadAndPrinted(const char* text) {
    Pavo::IpAddr address;
    address.stringValueIs(Mox::String(text));
    std::cout << address << "\n";
    return address.stringValue() == Mox::String(text);
}

bool isRefused(const char* text) {
    try {
        Pavo::IpAddr address;
        address.stringValueIs(Mox::String(text));
    } catch (const Mox::RangeException& error) {
        std::cout << text << ": " << error.what() << "\n";
        return true;
    }
    return false;
}

}  // namespace

int main() {
    return isReadAndPrinted("192.0.2.7") && isRefused("192.0.2.700") ? 0 : 1;
}
