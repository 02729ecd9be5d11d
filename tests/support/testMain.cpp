/* Enters the sandbox by running itself again inside it. */
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

/* An object preloaded in front of the sanitizer's own is meant. A cancelled thread leaves marks on
 * its stack, where the sanitizer would restore its signal stack. */
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "verify_asan_link_order=0:use_sigaltstack=0";
}

/* The sanitizer follows no lock of a thread that is cancelled in a wait, so it does not see how
 * that thread leaves, nor that it has left before the stop closes what it waited on. */
extern "C" const char *__tsan_default_suppressions();
extern "C" const char *__tsan_default_suppressions()
{
    return "race:_LeaveWait\nrace:_CloseEpoll";
}

int main(int argc, char *argv[])
{
    if (getenv("RTC_SANDBOX") == nullptr) {
        const std::filesystem::path Checkout = RTC_CHECKOUT;
        const auto Self = std::filesystem::read_symlink("/proc/self/exe");
        const std::string Sandbox = Checkout / "simulator/sandbox.sh";
        const std::string Program = Self.lexically_relative(Checkout);
        std::vector<const char *> Arguments = {Sandbox.c_str(), RTC_CHECKOUT, "-", Program.c_str()};

        Arguments.insert(Arguments.end(), argv + 1, argv + argc + 1); /* with the ending null */
        execv(Sandbox.c_str(), const_cast<char **>(Arguments.data()));
        perror(Sandbox.c_str());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
