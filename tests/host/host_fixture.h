// Common ground of the host tests: a private install root with a port
// filter file, reset doubles and agent symbols, a clean module context and
// a log capture.
#ifndef WL_TEST_HOST_FIXTURE_H
#define WL_TEST_HOST_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "doubles/host_doubles.h"
#include "log_capture.h"
#include "temp_dir.h"

class HostTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes "<root>/config/whitelist_port.cfg", which "@/../config/..." names.
    void writePortConfig(const std::string& body);
    // Ports of the context's filter list, front to back.
    std::vector<int> filteredPorts() const;

    TempInstallRoot m_dir{"install"};
    const std::string m_root = m_dir.path();
    LogCapture m_log;
};

#endif
