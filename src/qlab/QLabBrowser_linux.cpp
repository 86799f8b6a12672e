// The QLab browser on the Avahi client library, driven by the Qt event loop.

#include "qlab/QLabBrowser.h"

#include "base/Checks.h"
#include "qlab/AvahiQtPoll.h"

#include <QLoggingCategory>
#include <QTimer>

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/error.h>

#include <list>
#include <map>
#include <tuple>

namespace orvane {

Q_LOGGING_CATEGORY(lcBrowser, "orvane.qlab.browser")

namespace {

constexpr const char* kServiceType = "_qlab._tcp";
// Numbers the browsing runs, so a failure reported by an old run never stops a new one.
std::uint64_t nextRun = 0;

} // namespace

// The live Avahi objects of one browsing run. Made by start(), dropped by stop() or a failure.
struct QLabBrowser::Avahi {
    // One resolution in progress; `done` runs exactly once, whichever of answer, failure or
    // time-out comes first.
    struct Resolution {
        Avahi* owner = nullptr;
        AvahiServiceResolver* resolver = nullptr;
        std::function<void(std::optional<Resolved>)> done;
        std::unique_ptr<Timer> timeout;
    };
    using Key = std::tuple<QString, int, int, QString>; // name, interface, protocol, domain

    explicit Avahi(QLabBrowser& browser) : owner(browser) {}
    ~Avahi()
    {
        // Freeing the client frees its resolvers; their waiters hear nothing more.
        while (!resolutions.empty())
            finish(resolutions.front(), std::nullopt, false);
        if (browser)
            avahi_service_browser_free(browser);
        if (client)
            avahi_client_free(client);
    }

    void finish(Resolution& resolution, std::optional<Resolved> result, bool freeResolver = true)
    {
        auto done = std::move(resolution.done);
        if (freeResolver && resolution.resolver)
            avahi_service_resolver_free(resolution.resolver);
        resolutions.remove_if([&](const Resolution& r) { return &r == &resolution; });
        if (done)
            done(std::move(result));
    }

    std::vector<DiscoveredQLab> list() const
    {
        std::map<QString, DiscoveredQLab> byName;
        for (const auto& [key, service] : found)
            byName[service.name] = service; // a later result with the same name replaces
        std::vector<DiscoveredQLab> services;
        for (auto& [name, service] : byName)
            services.push_back(service);
        return services;
    }

    static void clientChanged(AvahiClient* client, AvahiClientState state, void* userdata)
    {
        auto* avahi = static_cast<Avahi*>(userdata);
        if (state != AVAHI_CLIENT_FAILURE)
            return;
        qCInfo(lcBrowser) << "qlab browser: lost the Avahi daemon:"
                          << avahi_strerror(avahi_client_errno(client));
        avahi->fail();
    }

    static void browserChanged(AvahiServiceBrowser*, AvahiIfIndex interface, AvahiProtocol protocol,
                               AvahiBrowserEvent event, const char* name, const char* type,
                               const char* domain, AvahiLookupResultFlags, void* userdata)
    {
        auto* avahi = static_cast<Avahi*>(userdata);
        switch (event) {
        case AVAHI_BROWSER_NEW:
        case AVAHI_BROWSER_REMOVE: {
            const QString serviceName = QString::fromUtf8(name);
            const Key key{serviceName, interface, protocol, QString::fromUtf8(domain)};
            if (event == AVAHI_BROWSER_NEW) {
                avahi->found[key] = DiscoveredQLab{
                    serviceName, {interface, protocol, QString::fromUtf8(type), QString::fromUtf8(domain)}};
            } else {
                avahi->found.erase(key);
            }
            if (avahi->listed)
                avahi->owner.publish(avahi->list());
            return;
        }
        case AVAHI_BROWSER_ALL_FOR_NOW:
        case AVAHI_BROWSER_CACHE_EXHAUSTED:
            avahi->listed = true;
            avahi->owner.publish(avahi->list());
            return;
        case AVAHI_BROWSER_FAILURE:
            qCInfo(lcBrowser) << "qlab browser: browsing failed:"
                              << avahi_strerror(avahi_client_errno(avahi->client));
            avahi->fail();
            return;
        }
    }

    // Drops this run and starts again later. Called from inside Avahi's callbacks, so the
    // teardown waits for the event loop.
    void fail()
    {
        QTimer::singleShot(0, &owner, [browser = &owner, run = run] {
            if (!browser->avahi_ || browser->avahi_->run != run)
                return;
            browser->avahi_.reset();
            browser->scheduleRestart();
        });
    }

    QLabBrowser& owner;
    const std::uint64_t run = nextRun++;
    AvahiQtPoll poll;
    AvahiClient* client = nullptr;
    AvahiServiceBrowser* browser = nullptr;
    std::map<Key, DiscoveredQLab> found;
    // The list is published once the daemon has told everything it knows, so a restart does
    // not empty and refill it.
    bool listed = false;
    std::list<Resolution> resolutions;
};

QLabBrowser::QLabBrowser(Clock& clock, QObject* parent)
    : QObject(parent), clock_(clock), restartTask_(clock)
{
}

QLabBrowser::~QLabBrowser() = default;

bool QLabBrowser::isBrowsing() const
{
    return avahi_ && avahi_->browser;
}

void QLabBrowser::start()
{
    assertOnOwnThread(this);
    restartTask_.stop();
    avahi_.reset();
    auto avahi = std::make_unique<Avahi>(*this);
    int error = 0;
    avahi->client = avahi_client_new(avahi->poll.poll(), AvahiClientFlags(0), Avahi::clientChanged,
                                     avahi.get(), &error);
    if (!avahi->client) {
        qCInfo(lcBrowser) << "qlab browser: no Avahi daemon:" << avahi_strerror(error);
        scheduleRestart();
        return;
    }
    avahi_ = std::move(avahi);
    avahi_->browser = avahi_service_browser_new(avahi_->client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                kServiceType, nullptr, AvahiLookupFlags(0),
                                                Avahi::browserChanged, avahi_.get());
    if (!avahi_->browser) {
        qCInfo(lcBrowser) << "qlab browser: cannot browse:"
                          << avahi_strerror(avahi_client_errno(avahi_->client));
        avahi_.reset();
        scheduleRestart();
    }
}

void QLabBrowser::stop()
{
    assertOnOwnThread(this);
    restartTask_.stop();
    avahi_.reset();
}

void QLabBrowser::scheduleRestart()
{
    restartTask_.start(kRestartDelay, [this] { start(); });
}

void QLabBrowser::resolve(const DiscoveredQLab& service,
                          std::function<void(std::optional<Resolved>)> done)
{
    assertOnOwnThread(this);
    if (!avahi_ || !avahi_->client) {
        done(std::nullopt);
        return;
    }
    auto& resolution = avahi_->resolutions.emplace_back();
    resolution.owner = avahi_.get();
    resolution.done = std::move(done);
    const QByteArray name = service.name.toUtf8();
    const QByteArray type = service.endpoint.type.isEmpty() ? QByteArray(kServiceType)
                                                            : service.endpoint.type.toUtf8();
    const QByteArray domain = service.endpoint.domain.toUtf8();
    resolution.resolver = avahi_service_resolver_new(
        avahi_->client, service.endpoint.interfaceIndex, service.endpoint.protocol, name.constData(),
        type.constData(), domain.isEmpty() ? nullptr : domain.constData(), AVAHI_PROTO_INET,
        AvahiLookupFlags(0),
        [](AvahiServiceResolver*, AvahiIfIndex, AvahiProtocol, AvahiResolverEvent event,
           const char*, const char*, const char*, const char*, const AvahiAddress* address,
           uint16_t port, AvahiStringList*, AvahiLookupResultFlags, void* userdata) {
            auto* resolution = static_cast<Avahi::Resolution*>(userdata);
            std::optional<Resolved> result;
            if (event == AVAHI_RESOLVER_FOUND && address && address->proto == AVAHI_PROTO_INET) {
                char text[AVAHI_ADDRESS_STR_MAX];
                avahi_address_snprint(text, sizeof text, address);
                result = Resolved{QString::fromLatin1(text), port};
            }
            resolution->owner->finish(*resolution, std::move(result));
        },
        &resolution);
    if (!resolution.resolver) {
        avahi_->finish(resolution, std::nullopt, false);
        return;
    }
    resolution.timeout = std::make_unique<Timer>(clock_);
    resolution.timeout->start(kResolveTimeout, [owner = avahi_.get(), r = &resolution] {
        owner->finish(*r, std::nullopt);
    });
}

} // namespace orvane
