// Every bound of the system, as the sources have it.
#include "limits/Limits.h"
#include "tools/convey/Commands.h"

namespace convey_tool {

Exit limits(const Output& output) {
    if (output.json) {
        Json all = Json::array();
        for (const ::limits::Limit& limit : ::limits::kAll) {
            all.push_back({{"name", limit.name},
                           {"value", limit.value},
                           {"unit", limit.unit},
                           {"reason", limit.reason}});
        }
        output.print({{"limits", std::move(all)}});
        return kDone;
    }
    Table table({"LIMIT", "VALUE", "UNIT", "REASON"});
    for (const ::limits::Limit& limit : ::limits::kAll) {
        table.add({limit.name, std::to_string(limit.value), limit.unit, limit.reason});
    }
    table.print(output);
    return kDone;
}

} // namespace convey_tool
