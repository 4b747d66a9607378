#include "link/NatsClient.h"

#include <vector>

namespace convey_link {
namespace {

constexpr int64_t kConnectMilliseconds = 2000;

template <class Set>
void secure(const Configuration& configuration, natsOptions* options, Set& set) {
    set(natsOptions_SetSecure(options, true));
    if (!configuration.ca.empty()) {
        set(natsOptions_LoadCATrustedCertificates(options, configuration.ca.c_str()));
    }
    if (!configuration.certificate.empty()) {
        set(natsOptions_LoadCertificatesChain(options, configuration.certificate.c_str(),
                                              configuration.key.c_str()));
    }
    if (!configuration.host.empty()) {
        set(natsOptions_SetExpectedHostname(options, configuration.host.c_str()));
    }
}

} // namespace

std::string natsErrorText(natsStatus status, const char* words) {
    const std::string name = natsStatus_GetText(status);
    return words == nullptr || *words == '\0' ? name : name + ": " + words;
}

std::string lastNatsError(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* const text = nats_GetLastError(&last);
    return natsErrorText(status, last == status ? text : nullptr);
}

natsStatus makeNatsOptions(const Configuration& configuration, Owned<natsOptions>& options) {
    natsOptions* made = nullptr;
    natsStatus status = natsOptions_Create(&made);
    options.reset(made);
    const auto set = [&](natsStatus result) { status = status == NATS_OK ? result : status; };
    std::vector<const char*> servers;
    for (const std::string& server : configuration.servers) {
        servers.push_back(server.c_str());
    }
    set(natsOptions_SetServers(made, servers.data(), static_cast<int>(servers.size())));
    set(natsOptions_SetName(made, ("convey-link " + configuration.name).c_str()));
    set(natsOptions_SetCustomInboxPrefix(made, ("_INBOX_" + configuration.name).c_str()));
    set(natsOptions_SetTimeout(made, kConnectMilliseconds));
    if (!configuration.user.empty()) {
        set(natsOptions_SetUserInfo(made, configuration.user.c_str(),
                                    configuration.password.c_str()));
    }
    if (!configuration.credentials.empty()) {
        set(natsOptions_SetUserCredentialsFromFiles(made, configuration.credentials.c_str(),
                                                    nullptr));
    }
    if (configuration.tls) {
        secure(configuration, made, set);
    }
    return status;
}

} // namespace convey_link
