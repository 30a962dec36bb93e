// The start of a test with the real service control manager.
#pragma once

#include <gmock/gmock.h>

#include <string>

#include "tests/e2e/installation.h"
#include "tests/e2e/service_manager.h"

// A staged installation whose service is not registered yet. A service that a crashed run has left
// behind is removed first, since it holds files of that run's installation, and the test's own
// afterwards.
class ServiceTest : public ::testing::Test {
 protected:
  explicit ServiceTest(const std::string& folderSuffix = "")
      : name(StagedServiceName()), service(name), installation(FolderName(folderSuffix)) {}

  void TearDown() override { service.Remove(); }

  // What the program prints when it installs its service.
  std::string InstalledText() const { return name + " is installed successfully\r\n"; }

  void InstallAndStart() {
    ASSERT_EQ(installation.Run("-install").output, InstalledText());
    ASSERT_EQ(service.Start(), 0U);
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING));
  }

  const std::string name;
  ServiceUnderTest service;
  Installation installation;

 private:
  std::string FolderName(const std::string& suffix) {
    service.Remove();
    return ::testing::UnitTest::GetInstance()->current_test_info()->name() + suffix;
  }
};
