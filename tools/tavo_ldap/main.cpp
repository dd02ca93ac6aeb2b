#include "commands.h"
#include "output.h"

#include <clocale>

int main(int argc, char** argv)
{
    using namespace tavo::tool;
    // wcwidth needs it to know the width of characters.
    std::setlocale(LC_CTYPE, "C.UTF-8");
    try {
        return run(parseOptions(argc, argv));
    } catch (const NothingToDo& outcome) {
        return outcome.exitCode;
    } catch (const UsageError& error) {
        note(std::string("tavo-ldap: ") + error.what() + "\nRun with --help for more information.");
        return 2;
    }
}
