// Builds against the installed cimcore and uses a little of it.
#include <cimcore/cimcore.h>

#include <cstdio>

int main() {
    const CIM::TSCIMTime time(CIM::TSDateTimeComponents{2024, 3, 5, 7, 4, 9});
    const std::string text = CIM::ToString(time);
    std::printf("cimcore consumer: %s, tick %lu\n", text.c_str(), CIM::TCCIMTime::Tick());
    return text == "[2024-3-5] [7:4:9]" ? 0 : 1;
}
