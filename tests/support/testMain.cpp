/* Enters the sandbox by running itself again inside it. */
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

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
