// The library under the yardstick.
//
//   tavo_fetch URL BASE FILTER ATTRIBUTES PAGE_SIZE MODE [--managers N] [--start-tls]
//
// MODE is users-streaming, users-collecting, groups-streaming, groups-collecting, search or simple-search. The fetches
// of groups take no FILTER, and those of users and groups no ATTRIBUTES: the manager knows them. Prints one line of
// JSON about the fetch alone, and how long connecting took.
#include <ldap/manager.h>
#include <ldap/open_session.h>
#include <ldap/session.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <span>
#include <stdexcept>
#include <string_view>

namespace {

using namespace tavo::ldap;

double seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double processorSeconds()
{
    struct rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto sum = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return sum(usage.ru_utime) + sum(usage.ru_stime);
}

/// What was read. Counting is how each client proves that it has read every record.
struct Totals
{
    std::size_t entries = 0;
    std::size_t values = 0;
    std::size_t characters = 0;
    /// When the first page came; zero before.
    double firstPage = 0;

    void add(const QString& value)
    {
        values += value.isEmpty() ? 0 : 1;
        characters += static_cast<std::size_t>(value.size());
    }

    void add(const User& user)
    {
        ++entries;
        characters += static_cast<std::size_t>(user.dn.size());
        add(user.login);
        add(user.fullName);
        add(user.email);
    }

    void add(const Group& group)
    {
        ++entries;
        characters += static_cast<std::size_t>(group.dn.size());
        for (const QString& member : group.members) {
            add(member);
        }
    }

    void add(const SearchEntry& entry)
    {
        ++entries;
        characters += static_cast<std::size_t>(entry.dn.size());
        for (const Attribute& attribute : entry.attributes) {
            for (const QString& value : attribute.values) {
                add(value);
            }
        }
    }

    template <class Record>
    void addPage(const std::vector<Record>& page)
    {
        for (const Record& record : page) {
            add(record);
        }
        if (firstPage == 0) {
            firstPage = seconds();
        }
    }
};

void checkOk(Result result)
{
    if (result != Result::ok) {
        throw std::runtime_error("the fetch has ended with " + std::string(toString(result)));
    }
}

struct Arguments
{
    QString url;
    QString base;
    QString filter;
    std::vector<QByteArray> attributes;
    int pageSize = 0;
    std::string_view mode;
    int managers = 1;
    bool startTls = false;

    explicit Arguments(std::span<char*> words)
    {
        if (words.size() < 7) {
            throw std::invalid_argument(
                "usage: tavo_fetch URL BASE FILTER ATTRIBUTES PAGE_SIZE MODE [--managers N] [--start-tls]");
        }
        url = QString::fromUtf8(words[1]);
        base = QString::fromUtf8(words[2]);
        filter = QString::fromUtf8(words[3]);
        for (const QByteArray& name : QByteArray(words[4]).split(',')) {
            attributes.push_back(name);
        }
        pageSize = std::stoi(words[5]);
        mode = words[6];
        for (std::size_t i = 7; i < words.size(); ++i) {
            startTls = startTls || std::string_view(words[i]) == "--start-tls";
            if (std::string_view(words[i]) == "--managers" && i + 1 < words.size()) {
                managers = std::stoi(words[++i]);
            }
        }
    }

    Settings settings() const
    {
        Settings settings;
        settings.uri = tavo::utils::Url(url);
        settings.startTls = startTls;
        settings.searchPageSize = pageSize;
        return settings;
    }
};

/// Each page is read and dropped.
template <class Record>
class Streaming
{
public:
    void take(std::vector<Record> page) { m_totals.addPage(page); }
    const Totals& totals() { return m_totals; }

private:
    Totals m_totals;
};

/// All records are kept, and read at the end.
template <class Record>
class Collecting
{
public:
    void take(std::vector<Record> page)
    {
        if (m_firstPage == 0) {
            m_firstPage = seconds();
        }
        m_records.insert(
            m_records.end(), std::make_move_iterator(page.begin()), std::make_move_iterator(page.end()));
    }

    const Totals& totals()
    {
        m_totals.addPage(m_records);
        m_totals.firstPage = m_firstPage;
        return m_totals;
    }

private:
    std::vector<Record> m_records;
    double m_firstPage = 0;
    Totals m_totals;
};

void start(Manager& manager, UsersHandler handler, const Arguments& arguments)
{
    manager.fetchUsersAsync(std::move(handler), {arguments.base, arguments.filter});
}

void start(Manager& manager, GroupsHandler handler, const Arguments& arguments)
{
    manager.fetchGroupsAsync(std::move(handler), {arguments.base, {}});
}

/// What the program prints.
struct Report
{
    Totals totals;
    double begun = 0;
    double connected = 0;
    double ended = 0;
    double processor = 0;

    void print() const
    {
        std::printf(
            "{\"entries\": %zu, \"values\": %zu, \"bytes\": %zu, \"seconds\": %.6f, \"processor\": %.6f, "
            "\"first_page\": %.6f, \"connect\": %.6f}\n",
            totals.entries, totals.values, totals.characters, ended - connected, processor,
            totals.firstPage - connected, connected - begun);
    }

    void add(const Totals& other)
    {
        totals.entries += other.entries;
        totals.values += other.values;
        totals.characters += other.characters;
        totals.firstPage = std::max(totals.firstPage, other.firstPage);
    }
};

/// Runs `work` between two looks at the clocks.
template <class Work>
void measure(Report& report, const Work& work)
{
    report.connected = seconds();
    const double processorBefore = processorSeconds();
    work();
    report.ended = seconds();
    report.processor = processorSeconds() - processorBefore;
}

template <template <class> class Taker, class Record>
struct Fetch
{
    std::unique_ptr<Manager> manager;
    Taker<Record> taker;
    std::promise<Result> finished;

    void start(const Arguments& arguments)
    {
        ::start(
            *manager,
            [this](Result result, std::vector<Record> page) {
                taker.take(std::move(page));
                if (result != Result::moreResults) {
                    finished.set_value(result);
                }
            },
            arguments);
    }
};

template <template <class> class Taker, class Record>
Report fetch(const Arguments& arguments)
{
    Report report;
    report.begun = seconds();
    std::vector<Fetch<Taker, Record>> fetches(static_cast<std::size_t>(arguments.managers));
    for (auto& fetch : fetches) {
        fetch.manager = createManagerOrThrow(arguments.settings());
    }
    measure(report, [&] {
        for (auto& fetch : fetches) {
            fetch.start(arguments);
        }
        for (auto& fetch : fetches) {
            checkOk(fetch.finished.get_future().get());
            report.add(fetch.taker.totals());
        }
    });
    return report;
}

Report search(const Arguments& arguments)
{
    Report report;
    report.begun = seconds();
    const std::unique_ptr<Session> session = openSession(arguments.settings());
    session->bind({}, {});
    const SearchParams params{arguments.base, arguments.filter, arguments.attributes, SearchScope::subtree};
    measure(report, [&] {
        if (arguments.mode == "simple-search") {
            report.totals.addPage(session->simpleSearch(params));
            return;
        }
        const auto outcome = session->search(params, arguments.pageSize);
        if (const auto* failure = std::get_if<Result>(&outcome)) {
            checkOk(*failure);
        }
        report.totals.addPage(std::get<std::vector<SearchEntry>>(outcome));
    });
    return report;
}

Report run(const Arguments& arguments)
{
    if (arguments.mode == "users-streaming") {
        return fetch<Streaming, User>(arguments);
    }
    if (arguments.mode == "users-collecting") {
        return fetch<Collecting, User>(arguments);
    }
    if (arguments.mode == "groups-streaming") {
        return fetch<Streaming, Group>(arguments);
    }
    if (arguments.mode == "groups-collecting") {
        return fetch<Collecting, Group>(arguments);
    }
    if (arguments.mode == "search" || arguments.mode == "simple-search") {
        return search(arguments);
    }
    throw std::invalid_argument("there is no mode " + std::string(arguments.mode));
}

} // namespace

int main(int argc, char** argv)
try {
    run(Arguments(std::span(argv, static_cast<std::size_t>(argc)))).print();
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tavo_fetch: %s\n", error.what());
    return 1;
}
