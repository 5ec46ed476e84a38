// Common set-up of the model-management tests: a temporary install tree
// ("@" is <tmp>/lib, so catalogue files land in <tmp>/var/base), empty model
// lists and fresh doubles.
#ifndef WL_TESTS_MODELS_FIXTURE_H
#define WL_TESTS_MODELS_FIXTURE_H

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "doubles/agent_doubles.h"
#include "doubles/model_library_double.h"
#include "log_capture.h"
#include "temp_dir.h"
#include "model_records.h"

typedef std::unique_ptr<cJSON, decltype(&cJSON_Delete)> JsonPtr;

// Parses test JSON; fails the test on a typo in it.
JsonPtr parse_json(const std::string& text);

class ModelsTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::string path(const std::string& relative) const { return m_root + "/" + relative; }
    // As the module names them: "@" is not normalised away.
    std::string base_catalogue() const { return path("lib/../var/base/base_model.cfg"); }
    std::string rasp_catalogue() const { return path("lib/../var/base/rasp_model.cfg"); }
    void write_file(const std::string& relative, const std::string& content) const;

    TempInstallRoot m_dir;
    const std::string m_root = m_dir.path();
    LogCapture m_log;
};

// "<no file>" or "<absent>" when there is nothing to read.
std::string ini_value(const std::string& file, const std::string& section, const std::string& key);
std::vector<std::string> model_names(const std::vector<base_init_st>& list);
base_init_st make_model(const std::string& name, int study_times, std::set<unsigned long long> ports);

#endif
