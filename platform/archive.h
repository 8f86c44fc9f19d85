// Platform interface: archive push tasks and the files they send.
#pragma once

#include <string>

#include "platform/export.h"

// Where an archive task sends to.
enum ARCH_DEST_TYPE : int { ARCH_DEST_WEBAPI = 0 };

// What a file to be sent is.
enum ARCH_FILE_TYPE : int {
  ARCH_FILE_RECORDING = 0,       // a recording of this recorder
  ARCH_FILE_PLAIN = 4,           // a plain file
  ARCH_FILE_TASK_RECORDING = 5,  // a recording whose event database lies under a task's source directory
};

// One file to send.
class VY_API ArchFile {
 public:
  // Plain values; the remote gets type, type id, camera and destination as they are, and the name of the file.
  ARCH_FILE_TYPE GetFileType() const { return m_fileType; }
  std::string GetFilePath() const { return m_filePath; }
  int GetFileTypeId() const { return m_fileTypeId; }
  int GetCamId() const { return m_camId; }
  std::string GetDestDir() const { return m_destDir; }
  std::string GetRecDbPath() const { return m_recDbPath; }  // event database of a recording
  int GetTaskId() const { return m_taskId; }

  // Set what the functions above return.
  void SetFileType(ARCH_FILE_TYPE type) { m_fileType = type; }
  void SetFilePath(const std::string& path) { m_filePath = path; }
  void SetFileTypeId(int id) { m_fileTypeId = id; }
  void SetCamId(int id) { m_camId = id; }
  void SetDestDir(const std::string& dir) { m_destDir = dir; }
  void SetRecDbPath(const std::string& path) { m_recDbPath = path; }
  void SetTaskId(int id) { m_taskId = id; }

 private:
  ARCH_FILE_TYPE m_fileType = ARCH_FILE_RECORDING;
  std::string m_filePath;
  int m_fileTypeId = 0;
  int m_camId = 0;
  std::string m_destDir;
  std::string m_recDbPath;
  int m_taskId = 0;
};

// One archive task of the store.
class VY_API ArchPushTask {
 public:
  // Reads a task from the store. 0 on success; -1 when there is none, then the record is unchanged.
  int Load(int taskId);

  // The number of the task, and the directory that it takes from.
  int GetId() const { return m_id; }
  std::string GetSrcDir() const { return m_srcDir; }
  void SetId(int id) { m_id = id; }
  void SetSrcDir(const std::string& dir) { m_srcDir = dir; }

  // Store upkeep. 0 on success, -1 on failure or for an identifier below 1.
  int Save() const;

 private:
  int m_id = 0;
  std::string m_srcDir;
};
