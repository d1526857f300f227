#include "velmorand/secret/SecretServiceKeychain.h"

#include <libsecret/secret.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <variant>
#include <vector>

namespace velmorand {
namespace {

// Keychain attribute names and the keyring attributes they become. The scope is the keyring's
// own: it keeps each installation's items apart.
constexpr std::pair<std::string_view, const char*> kAttributes[] = {
    {keychain::kClass, "class"},           {keychain::kService, "service"},
    {keychain::kAccount, "account"},       {keychain::kAccessGroup, "access-group"},
    {keychain::kAccessible, "accessible"},
};
constexpr const char* kScope = "scope";
constexpr const char* kLabel = "Velmorand Connect";

const SecretSchema* itemSchema() {
    static const SecretSchema schema = {"co.velmorand.connect.Keychain",
                                        SECRET_SCHEMA_NONE,
                                        {
                                            {"class", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {"access-group", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {"accessible", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {kScope, SECRET_SCHEMA_ATTRIBUTE_STRING},
                                            {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING},
                                        },
                                        0,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr,
                                        nullptr};
    return &schema;
}

// GObject references, released with their owner.
struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;

struct HashTableUnref {
    void operator()(GHashTable* table) const { g_hash_table_unref(table); }
};
using HashTable = std::unique_ptr<GHashTable, HashTableUnref>;

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, ErrorFree>;

HashTable newAttributeTable() {
    return HashTable(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
}

// Cancels `cancellable` once `bound` has passed, unless destroyed first: every blocking call made
// with it then returns.
class Watchdog {
  public:
    Watchdog(GCancellable* cancellable, std::chrono::milliseconds bound)
        : thread_([this, cancellable, bound] {
              std::unique_lock lock(mutex_);
              if (!finished_.wait_for(lock, bound, [this] { return done_; })) {
                  g_cancellable_cancel(cancellable);
              }
          }) {}
    ~Watchdog() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        finished_.notify_one();
        thread_.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

  private:
    std::mutex mutex_;
    std::condition_variable finished_;
    bool done_ = false;
    std::thread thread_;
};

// Runs `call(cancellable)` within `bound`; whether it was cut short.
template <typename Call>
bool runBounded(std::chrono::milliseconds bound, Call&& call) {
    Ref<GCancellable> cancellable(g_cancellable_new());
    {
        const Watchdog watchdog(cancellable.get(), bound);
        call(cancellable.get());
    }
    return g_cancellable_is_cancelled(cancellable.get());
}

// Without an address or the runtime directory's bus, GLib would launch a bus of its own (on the X
// display), for no Secret Service to be found on.
bool sessionBusConfigured() {
    const auto set = [](const char* name) {
        const char* value = std::getenv(name);
        return value != nullptr && *value != '\0';
    };
    if (set("DBUS_SESSION_BUS_ADDRESS")) {
        return true;
    }
    if (!set("XDG_RUNTIME_DIR")) {
        return false;
    }
    std::error_code error;
    return std::filesystem::is_socket(std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / "bus",
                                      error);
}

// Only a service already running counts: one started now would have no open keyring and would
// want to ask the user for a password.
bool serviceRunning(GCancellable* cancellable) {
    Error error;
    GError* raw = nullptr;
    Ref<GDBusConnection> bus(g_bus_get_sync(G_BUS_TYPE_SESSION, cancellable, &raw));
    error.reset(raw);
    if (!bus) {
        return false;
    }
    // The shared connection would otherwise end the whole program when the bus goes.
    g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
    raw = nullptr;
    GVariant* reply = g_dbus_connection_call_sync(
        bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "NameHasOwner", g_variant_new("(s)", "org.freedesktop.secrets"), G_VARIANT_TYPE("(b)"),
        G_DBUS_CALL_FLAGS_NONE, -1, cancellable, &raw);
    error.reset(raw);
    if (reply == nullptr) {
        return false;
    }
    gboolean owned = FALSE;
    g_variant_get(reply, "(b)", &owned);
    g_variant_unref(reply);
    return owned != FALSE;
}

}  // namespace

struct SecretServiceKeychain::Service {
    Ref<SecretService> service;
    std::string scope;
    std::chrono::milliseconds bound;
    std::mutex mutex;
    bool unresponsive = false;

    // Runs one keychain operation within the bound; kNotAvailable when it was cut short, and for
    // every operation after that.
    template <typename Operation>
    int bounded(Operation&& operation) {
        std::lock_guard lock(mutex);
        if (unresponsive) {
            return keychain::kNotAvailable;
        }
        int status = keychain::kNotAvailable;
        if (runBounded(bound,
                       [&](GCancellable* cancellable) { status = operation(cancellable); })) {
            unresponsive = true;
            return keychain::kNotAvailable;
        }
        return status;
    }

    // The keyring attributes for `attributes`' identity (and accessibility, for an item to store
    // rather than a query, which matches on identity alone), with the scope; null when one of
    // them is not text.
    HashTable attributeTable(const KeychainAttributes& attributes, bool stored) const {
        auto table = newAttributeTable();
        for (const auto& [name, attribute] : kAttributes) {
            const auto it = attributes.find(name);
            if (!stored && name == keychain::kAccessible) {
                continue;
            }
            if (it == attributes.end()) {
                continue;
            }
            const auto* text = std::get_if<std::string>(&it->second);
            if (text == nullptr) {
                return nullptr;
            }
            g_hash_table_insert(table.get(), g_strdup(attribute), g_strdup(text->c_str()));
        }
        g_hash_table_insert(table.get(), g_strdup(kScope), g_strdup(scope.c_str()));
        return table;
    }

    // The items whose attributes include every attribute in `table`, oldest first (the order in
    // which they were added); a status when the search failed.
    std::variant<std::vector<Ref<SecretItem>>, int> search(GHashTable* table,
                                                           GCancellable* cancellable) {
        GError* raw = nullptr;
        GList* found = secret_service_search_sync(service.get(), itemSchema(), table,
                                                  SECRET_SEARCH_ALL, cancellable, &raw);
        const Error error(raw);
        if (error) {
            return keychain::kNotAvailable;
        }
        std::vector<Ref<SecretItem>> items;
        for (GList* link = found; link != nullptr; link = link->next) {
            items.emplace_back(SECRET_ITEM(link->data));
        }
        g_list_free(found);
        std::stable_sort(items.begin(), items.end(), [](const auto& a, const auto& b) {
            const auto createdA = secret_item_get_created(a.get());
            const auto createdB = secret_item_get_created(b.get());
            if (createdA != createdB) {
                return createdA < createdB;
            }
            return std::string_view(g_dbus_proxy_get_object_path(G_DBUS_PROXY(a.get()))) <
                   std::string_view(g_dbus_proxy_get_object_path(G_DBUS_PROXY(b.get())));
        });
        return items;
    }

    // The items whose identity `query` matches, oldest first; kItemNotFound for none.
    std::variant<std::vector<Ref<SecretItem>>, int> matching(const KeychainAttributes& query,
                                                             GCancellable* cancellable) {
        const auto table = attributeTable(query, false);
        if (!table) {
            return keychain::kItemNotFound;
        }
        auto found = search(table.get(), cancellable);
        if (const auto* items = std::get_if<std::vector<Ref<SecretItem>>>(&found);
            items != nullptr && items->empty()) {
            return keychain::kItemNotFound;
        }
        return found;
    }

    // A stored item as the keychain describes it: its attributes and, when `withData`, its data.
    static std::optional<KeychainAttributes> describe(SecretItem* item, bool withData,
                                                      GCancellable* cancellable) {
        KeychainAttributes attributes;
        const HashTable table(secret_item_get_attributes(item));
        for (const auto& [name, attribute] : kAttributes) {
            if (const auto* value =
                    static_cast<const char*>(g_hash_table_lookup(table.get(), attribute))) {
                attributes.emplace(std::string(name), std::string(value));
            }
        }
        if (!withData) {
            return attributes;
        }
        GError* raw = nullptr;
        const bool loaded = secret_item_load_secret_sync(item, cancellable, &raw);
        const Error error(raw);
        SecretValue* secret = loaded ? secret_item_get_secret(item) : nullptr;
        if (secret == nullptr) {
            return std::nullopt;
        }
        gsize length = 0;
        const gchar* data = secret_value_get(secret, &length);
        attributes.emplace(std::string(keychain::kValueData),
                           Bytes(reinterpret_cast<const std::uint8_t*>(data),
                                 reinterpret_cast<const std::uint8_t*>(data) + length));
        secret_value_unref(secret);
        return attributes;
    }
};

SecretServiceKeychain::SecretServiceKeychain(std::unique_ptr<Service> service)
    : service_(std::move(service)) {}

SecretServiceKeychain::~SecretServiceKeychain() = default;

std::unique_ptr<SecretServiceKeychain> SecretServiceKeychain::connect(
    std::string scope, std::chrono::milliseconds bound) {
    if (!sessionBusConfigured()) {
        return nullptr;
    }
    Ref<SecretService> opened;
    const bool cutShort = runBounded(bound, [&](GCancellable* cancellable) {
        if (!serviceRunning(cancellable)) {
            return;
        }
        GError* raw = nullptr;
        Ref<SecretService> service(
            secret_service_get_sync(SECRET_SERVICE_OPEN_SESSION, cancellable, &raw));
        Error error(raw);
        if (!service) {
            return;
        }
        raw = nullptr;
        Ref<SecretCollection> collection(secret_collection_for_alias_sync(
            service.get(), SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, cancellable, &raw));
        error.reset(raw);
        if (collection && !secret_collection_get_locked(collection.get())) {
            opened = std::move(service);
        }
    });
    if (cutShort || !opened) {
        return nullptr;
    }
    auto service = std::make_unique<Service>();
    service->service = std::move(opened);
    service->scope = std::move(scope);
    service->bound = bound;
    return std::unique_ptr<SecretServiceKeychain>(new SecretServiceKeychain(std::move(service)));
}

int SecretServiceKeychain::copyMatching(const KeychainAttributes& query, KeychainResult* result) {
    return service_->bounded([&](GCancellable* cancellable) {
        auto found = service_->matching(query, cancellable);
        if (const auto* status = std::get_if<int>(&found)) {
            return *status;
        }
        const auto& items = std::get<std::vector<Ref<SecretItem>>>(found);
        if (secret_item_get_locked(items.front().get())) {
            return keychain::kInteractionNotAllowed;
        }
        const auto item = Service::describe(items.front().get(), true, cancellable);
        if (!item) {
            return keychain::kNotAvailable;
        }
        keychain::fillResult(*item, query, result);
        return keychain::kSuccess;
    });
}

int SecretServiceKeychain::add(const KeychainAttributes& attributes, KeychainResult* result) {
    const KeychainAttributes item = keychain::storedAttributes(attributes);
    const auto data = item.find(keychain::kValueData);
    if (data != item.end() && !std::holds_alternative<Bytes>(data->second)) {
        return keychain::kParam;
    }
    const auto table = service_->attributeTable(item, true);
    if (!table) {
        return keychain::kParam;
    }
    return service_->bounded([&](GCancellable* cancellable) {
        // The keyring keeps items with equal attributes side by side; the keychain does not.
        const auto identity = service_->attributeTable(item, false);
        auto found = service_->search(identity.get(), cancellable);
        if (const auto* status = std::get_if<int>(&found)) {
            return *status;
        }
        for (const auto& existing : std::get<std::vector<Ref<SecretItem>>>(found)) {
            const auto described = Service::describe(existing.get(), false, cancellable);
            if (described && keychain::sameIdentity(*described, item)) {
                return keychain::kDuplicateItem;
            }
        }
        GError* raw = nullptr;
        const Ref<SecretCollection> collection(
            secret_collection_for_alias_sync(service_->service.get(), SECRET_COLLECTION_DEFAULT,
                                             SECRET_COLLECTION_NONE, cancellable, &raw));
        Error error(raw);
        if (!collection) {
            return keychain::kNotAvailable;
        }
        if (secret_collection_get_locked(collection.get())) {
            return keychain::kInteractionNotAllowed;
        }
        const Bytes empty;
        const Bytes& bytes = data != item.end() ? std::get<Bytes>(data->second) : empty;
        SecretValue* value =
            secret_value_new(reinterpret_cast<const gchar*>(bytes.data()),
                             static_cast<gssize>(bytes.size()), "application/octet-stream");
        raw = nullptr;
        const Ref<SecretItem> created(
            secret_item_create_sync(collection.get(), itemSchema(), table.get(), kLabel, value,
                                    SECRET_ITEM_CREATE_NONE, cancellable, &raw));
        error.reset(raw);
        secret_value_unref(value);
        if (!created) {
            return keychain::kNotAvailable;
        }
        keychain::fillResult(item, attributes, result);
        return keychain::kSuccess;
    });
}

int SecretServiceKeychain::remove(const KeychainAttributes& query) {
    return service_->bounded([&](GCancellable* cancellable) {
        auto found = service_->matching(query, cancellable);
        if (const auto* status = std::get_if<int>(&found)) {
            return *status;
        }
        const auto& items = std::get<std::vector<Ref<SecretItem>>>(found);
        for (const auto& item : items) {
            if (secret_item_get_locked(item.get())) {
                return keychain::kInteractionNotAllowed;
            }
            GError* raw = nullptr;
            const bool deleted = secret_item_delete_sync(item.get(), cancellable, &raw);
            const Error error(raw);
            if (!deleted) {
                return keychain::kNotAvailable;
            }
        }
        return keychain::kSuccess;
    });
}

}  // namespace velmorand
