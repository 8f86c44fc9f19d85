#include "platform/archive.h"

#include "platform/local/store.h"

using local::Statement;
using local::Store;

int ArchPushTask::Load(int taskId) {
  const Store store(Store::Access::kRead);
  if (taskId < 1 || !store.IsOpen()) return -1;
  Statement row(store, "SELECT src_dir FROM archive_tasks WHERE id = ?");
  if (!row.Bind(taskId).Next()) return -1;
  m_id = taskId;
  m_srcDir = row.GetText(0);
  return 0;
}

int ArchPushTask::Save() const {
  if (m_id < 1) return -1;
  const Store store(Store::Access::kWrite);
  if (!store.IsOpen()) return -1;
  Statement statement(store, "INSERT OR REPLACE INTO archive_tasks (id, src_dir) VALUES (?, ?)");
  return statement.Bind(m_id).Bind(m_srcDir).Run() ? 0 : -1;
}
