// Probes for the leak checker's suppression of dropped task records. They
// are disabled in normal runs; in address-sanitizer builds ctest runs them
// on their own (tests/tasks/Serializer.cmake) and reads the leak report:
// without the suppression the dropped records are reported, with it they
// are not, while any other leak still is.
#include "tests/tasks/SerializerTestSupport.h"

#include <gtest/gtest.h>

#include <memory>

namespace serializer_test {
namespace {

char* volatile g_LostBlock = nullptr;

// A leak that has nothing to do with the serializer. Its name is what the
// probe looks for in the leak report.
__attribute__((noinline)) void LeakCheckCanary() {
  g_LostBlock = new char[77];
  g_LostBlock = nullptr;
}

void DropTwoRecords() {
  CTestSerializer serializer;
  auto first = MakeTask(1);
  auto second = MakeTask(2);
  ASSERT_EQ(1, serializer.InsertTask(*first, CSerializer::TASK_PRIORITY_0, nullptr));
  ASSERT_EQ(1, serializer.InsertTask(*second, CSerializer::TASK_PRIORITY_0, nullptr));
  serializer.StartSerialization();
  serializer.TerminateSerialization();
  EXPECT_TRUE(serializer.Executed().empty());
}

class SerializerLeakProbe : public SerializerTest {};

TEST_F(SerializerLeakProbe, DISABLED_DroppedRecords) { DropTwoRecords(); }

TEST_F(SerializerLeakProbe, DISABLED_DroppedRecordsAndAnUnrelatedLeak) {
  DropTwoRecords();
  LeakCheckCanary();
}

}  // namespace
}  // namespace serializer_test
