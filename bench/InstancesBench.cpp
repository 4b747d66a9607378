// What one instance costs among a few and among thousands in one process: making it, finding it by
// its name, a request that another one answers, and its end.
// Usage: instances_bench [ROUNDS]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "bench/BareSocket.h"
#include "bench/BenchFolder.h"
#include "bench/Handlers.h"
#include "scriptobjects/convey/SoCVContext.h"
#include "scriptobjects/convey/SoCVMessage.h"
#include "scriptobjects/convey/SoConvey.h"

namespace {

using namespace bench;
using ScObjects::Convey;
using ScObjects::SoString;

// Each has a port of its own, with four descriptors.
constexpr rlim_t kDescriptorsOfOne = 4;
constexpr int kFew = 100;
constexpr int kMany = 10'000;

SoString nameOf(int i) {
    return SoString("one" + std::to_string(i) + "-1.0-en_us");
}

struct Costs { // microseconds of one
    double making;
    double finding;
    double request;
    double ending;
};

Costs costsAmong(int count) {
    std::vector<std::unique_ptr<Convey>> all;
    Costs costs{};
    ScObjects::ConveyContext* const context = Convey::getSharedContext();
    const auto each = [count](Time::time_point start) { return 1e6 * secondsSince(start) / count; };
    auto start = Time::now();
    for (int i = 0; i < count; ++i) {
        all.push_back(std::make_unique<Convey>(nameOf(i).c_str(), nullptr, i == 0, nullptr));
        if (!all.back()->isReachable()) {
            fail("an instance without port");
        }
    }
    costs.making = each(start);
    start = Time::now();
    for (int i = 0; i < count; ++i) {
        if (context->findInstance(nameOf(i)) == nullptr) {
            fail("an instance that is not found");
        }
    }
    costs.finding = each(start);
    start = Time::now();
    for (int i = 0; i < count; ++i) {
        Convey::Message message;
        message.setTarget(nameOf(count - 1 - i));
        message.setBody("question");
        if (!all[static_cast<size_t>(i)]->send(message, false, 0, nullptr)) {
            fail("send");
        }
    }
    while (Convey::pump(ScObjects::kProcessBoth)) {
    }
    costs.request = each(start);
    start = Time::now();
    all.clear();
    costs.ending = each(start);
    return costs;
}

} // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    const BenchFolder folder;
    rlimit descriptors{};
    (void)getrlimit(RLIMIT_NOFILE, &descriptors);
    descriptors.rlim_cur = descriptors.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &descriptors);
    const int many = static_cast<int>(
        std::min<rlim_t>(kMany, (descriptors.rlim_cur - kFew) / kDescriptorsOfOne));
    (void)Convey::InitTerm::init("many-1.0", true);
    std::vector<Costs> few;
    std::vector<Costs> lots;
    for (int i = 0; i < rounds; ++i) {
        few.push_back(costsAmong(kFew));
        lots.push_back(costsAmong(many));
    }
    std::printf("| an instance, us | among %d | among %d | ratio | goal |\n|---|---|---|---|---|\n",
                kFew, many);
    const auto row = [&](const char* name, double Costs::*cost) {
        const auto middle = [cost](const std::vector<Costs>& all) {
            std::vector<double> values;
            for (const Costs& one : all) {
                values.push_back(one.*cost);
            }
            return median(values);
        };
        std::printf("| %s | %.2f | %.2f | %.2f | <= 2 |\n", name, middle(few), middle(lots),
                    middle(lots) / middle(few));
    };
    row("made", &Costs::making);
    row("found by its name", &Costs::finding);
    row("a message from another one, pumped", &Costs::request);
    row("ended", &Costs::ending);
    return 0;
}
