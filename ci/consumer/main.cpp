// Builds against the installed headers and library, and checks a few answers.
#include "Points.h"
#include "Stemlib.h"

#include <iostream>

int main() {
    using namespace Ombrel;
    AOIManager manager(NAOI);
    manager.setAOI(0, true, IRectangle(0, 0, 100, 100), 0);
    const AOIInfo info = manager.add(1, FPoint(50.0f, 50.0f));
    if (info.location != AOILocation::AOI0 || getStemlibVersion() != "1.0.0") {
        std::cerr << "consumer: unexpected answer\n";
        return 1;
    }
    std::cout << "consumer: Stemlib " << getStemlibVersion() << " answers "
              << toString(info.location) << '\n';
    return 0;
}
