#include "listing.h"

#include "output.h"
#include "steps.h"
#include <ldap/manager.h>

#include <exception>
#include <future>
#include <memory>
#include <utility>
#include <vector>

namespace tavo::tool {

namespace {

using ldap::Result;

struct Users
{
    using Record = ldap::User;
    static constexpr const char* kind = "users";

    static std::vector<QString> header()
    {
        return {
            QStringLiteral("LOGIN"), QStringLiteral("NAME"), QStringLiteral("E-MAIL"), QStringLiteral("DN")};
    }

    static std::vector<QString> row(const Record& user)
    {
        return {user.login, user.fullName, user.email, user.dn};
    }

    template <class Handler>
    static void fetch(ldap::Manager& manager, Handler handler, const ldap::SearchFilter& filter)
    {
        manager.fetchUsersAsync(std::move(handler), filter);
    }
};

struct Groups
{
    using Record = ldap::Group;
    static constexpr const char* kind = "groups";

    static std::vector<QString> header()
    {
        return {QStringLiteral("NAME"), QStringLiteral("MEMBERS"), QStringLiteral("DN")};
    }

    static std::vector<QString> row(const Record& group)
    {
        return {group.name, QString::number(group.members.size()), group.dn};
    }

    template <class Handler>
    static void fetch(ldap::Manager& manager, Handler handler, const ldap::SearchFilter& filter)
    {
        manager.fetchGroupsAsync(std::move(handler), filter);
    }
};

/// Prints the pages as they arrive, on the search's thread, and gives the waiting thread the result.
template <class Kind>
class Printer
{
public:
    explicit Printer(Format format)
        : m_format(format)
        , m_table(Kind::header())
    {}

    std::future<Result> finished() { return m_finished.get_future(); }
    std::size_t count() const { return m_count; }

    void handle(Result result, const std::vector<typename Kind::Record>& records)
    {
        if (m_failed) {
            return;
        }
        try {
            print(records);
        } catch (...) {
            m_failed = true;
            m_finished.set_exception(std::current_exception());
            return;
        }
        if (result != Result::moreResults) {
            m_finished.set_value(result);
        }
    }

private:
    void print(const std::vector<typename Kind::Record>& records)
    {
        m_count += records.size();
        for (const auto& record : records) {
            if (m_format == Format::ndjson) {
                printLine(record.toString());
            } else {
                m_table.add(Kind::row(record));
            }
        }
        if (m_format == Format::table) {
            m_table.print();
        }
    }

    Format m_format;
    Table m_table;
    std::size_t m_count = 0;
    bool m_failed = false;
    std::promise<Result> m_finished;
};

QString namingContext(const ldap::Settings& settings)
{
    const QString byDefault = QStringLiteral("defaultNamingContext");
    const QString any = QStringLiteral("namingContexts");
    const auto session = connect(settings);
    for (const auto& entry : readRootDse(*session, settings, {byDefault.toUtf8(), any.toUtf8()})) {
        const QString context = entry.getAttributeFirstValue(byDefault);
        return context.isEmpty() ? entry.getAttributeFirstValue(any) : context;
    }
    return {};
}

QString searchBase(const Options& options)
{
    if (!options.base.isEmpty()) {
        return options.base;
    }
    QString base = namingContext(options.settings);
    if (base.isEmpty()) {
        throw CommandError("choose where to search", "the server names no naming context; give --base");
    }
    note("Searching below " + quoted(base) + ", which the server names; --base chooses another place.");
    return base;
}

template <class Kind>
int list(const Options& options)
{
    const QString base = searchBase(options);
    const auto manager = attempt("connect and bind to " + options.settings.uri.toStdString(),
        [&] { return ldap::createManagerOrThrow(options.settings); });
    const auto printer = std::make_shared<Printer<Kind>>(options.format);
    std::future<Result> finished = printer->finished();
    attempt(std::string("start fetching ") + Kind::kind, [&] {
        Kind::fetch(*manager,
            [printer](Result result, const std::vector<typename Kind::Record>& records) {
                printer->handle(result, records);
            },
            {base, options.filter});
    });
    const Result result = finished.get();
    if (result != Result::ok) {
        throw CommandError(std::string("fetch the ") + Kind::kind + " below " + quoted(base),
            ldap::toString(result) + " (-v shows what the server said)");
    }
    note(std::to_string(printer->count()) + " " + Kind::kind + ".");
    return 0;
}

} // namespace

int listUsers(const Options& options) { return list<Users>(options); }

int listGroups(const Options& options) { return list<Groups>(options); }

} // namespace tavo::tool
