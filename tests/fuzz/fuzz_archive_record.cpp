// Archive lines read back, as an application reads its archive files: each of the four record
// kinds. std::stoi's exceptions reach the caller by design and are caught as the caller does; a
// record that was read whole writes a line that reads back to the same line.
#include "FuzzSupport.h"

#include "ArchiveRecord.h"

#include <stdexcept>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

template <typename Record>
void readBack(const std::string& line) {
    Record record;
    try {
        if (!record.deserialize(line)) {
            return;
        }
    } catch (const std::logic_error&) {
        return;
    }
    const std::string written = record.serialize();
    Record copy;
    check(copy.deserialize(written), "the written line reads back");
    check(copy.serialize() == written, "the written line reads back to the same line");
    for (const SummaryEntry& column : record.getSummaryEntries()) {
        (void)column;
    }
    (void)ArchiveRecord::stringToTime(record._dateTime, ArchiveRecord::_timeFormat);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    const std::string line = StemlibFuzz::text(data, size);
    readBack<CrowdCountRecord>(line);
    readBack<EntranceActivityRecord>(line);
    readBack<OccupancyObjectRecord>(line);
    readBack<QueueInfoRecord>(line);
    (void)ArchiveRecord::stringToFields(line);
    return 0;
}
