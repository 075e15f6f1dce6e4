// The fixture of the client suites that talk to the fake DCH: the one
// harness of the process, reset before and after every case.
#ifndef ZEVD_TESTS_SUPPORT_FAKE_DCH_FIXTURE_H
#define ZEVD_TESTS_SUPPORT_FAKE_DCH_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "support/client_probe.h"
#include "support/fake_dch.h"

namespace zevd::test {

class FakeDchClientTest : public ::testing::Test {
protected:
    // dchTimeout: the ZEVA_DCH_TIMEOUT that ctest gives the suite.
    explicit FakeDchClientTest(const char *dchTimeout) : dchTimeout_(dchTimeout) {}

    void SetUp() override {
        ASSERT_STREQ(getenv("ZEVA_DCH_TIMEOUT"), dchTimeout_)
            << "run through ctest, which sets ZEVA_DCH_TIMEOUT=" << dchTimeout_;
        dch_ = &FakeDch::instance();
        dch_->reset();
    }
    // Nothing a case gave the harness (a responder that captured its
    // locals) outlives it.
    void TearDown() override {
        if (dch_ != nullptr) dch_->reset();
    }

    FakeDch &dch() { return *dch_; }

    // The one request the DCH received in this case.
    std::vector<char> onlyRequest() {
        EXPECT_TRUE(dch().waitReceived(1));
        std::vector<DchRequest> requests = dch().received();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? std::vector<char>() : requests.front().bytes;
    }

private:
    const char *dchTimeout_;
    FakeDch *dch_ = nullptr;
};

}  // namespace zevd::test

#endif  // ZEVD_TESTS_SUPPORT_FAKE_DCH_FIXTURE_H
