#include <zel/tasks/TaskTestUtils.h>

namespace zel::TaskTestUtils {

std::function<Error()> blankFunc = [] { return Error(NoError); };

} // namespace zel::TaskTestUtils
