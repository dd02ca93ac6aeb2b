// Prints all users of a directory: fetch_users ldap://HOST dc=example,dc=com
#include <ldap/manager.h>

#include <future>
#include <iostream>

using namespace tavo::ldap;
int main(int argc, char** argv)
try {
    if (argc != 3) {
        std::cerr << "usage: fetch_users URL BASE\n";
        return 2;
    }
    Settings settings;
    settings.uri = tavo::utils::Url(QString::fromUtf8(argv[1]));
    auto manager = createManagerOrThrow(settings);

    std::promise<Result> finished;
    auto onUsers = [&](Result result, const std::vector<User>& page) {
        for (const User& user : page) {
            std::cout << user.toString() << '\n';
        }
        if (result != Result::moreResults) {
            finished.set_value(result);
        }
    };
    manager->fetchUsersAsync(onUsers, {QString::fromUtf8(argv[2]), QString()});
    const Result result = finished.get_future().get();
    std::cerr << toString(result) << '\n';
    return result == Result::ok ? 0 : 1;
} catch (const BaseError& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
