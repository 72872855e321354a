#include "support/TestMain.h"

#include <cstdio>
#include <map>
#include <string>

namespace harbex::test
{

namespace
{

std::map<std::string, TestRegistration::Run>& registeredTests()
{
    static std::map<std::string, TestRegistration::Run> tests;
    return tests;
}

} // namespace

TestRegistration::TestRegistration(const char* name, Run run)
{
    registeredTests().emplace(name, run);
}

} // namespace harbex::test

int main(int argc, char** argv)
{
    const auto& tests = harbex::test::registeredTests();
    const auto test = argc > 1 ? tests.find(argv[1]) : tests.end();
    if (test != tests.end()) return test->second(argc - 1, argv + 1);
    std::fprintf(stderr, "usage: %s TEST [options of Qt Test]\n", argv[0]);
    for (const auto& [name, run] : tests)
        std::fprintf(stderr, "    %s\n", name.c_str());
    return 2;
}
