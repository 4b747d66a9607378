// Every bound of the system and of its link, as the sources have it.
#include <initializer_list>
#include <span>

#include "limits/LinkLimits.h"
#include "tools/convey/Commands.h"

namespace convey_tool {

Exit limits(const Output& output) {
    using All = std::initializer_list<std::span<const ::limits::Limit>>;
    if (output.json) {
        Json all = Json::array();
        for (const auto& part : All{::limits::kAll, ::limits::kLink}) {
            for (const ::limits::Limit& limit : part) {
                all.push_back({{"name", limit.name},
                               {"value", limit.value},
                               {"unit", limit.unit},
                               {"reason", limit.reason}});
            }
        }
        output.print({{"limits", std::move(all)}});
        return kDone;
    }
    Table table({"LIMIT", "VALUE", "UNIT", "REASON"});
    for (const auto& part : All{::limits::kAll, ::limits::kLink}) {
        for (const ::limits::Limit& limit : part) {
            table.add({limit.name, std::to_string(limit.value), limit.unit, limit.reason});
        }
    }
    table.print(output);
    return kDone;
}

} // namespace convey_tool
