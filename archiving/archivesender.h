// Archive push: recordings and directories of recordings to a remote recorder, or to the paired central-management
// host. One thread at a time uses a sender; senders are independent of each other.
#pragma once

#include <list>
#include <string>

#include "platform/archive.h"
#include "platform/export.h"

// Sends files to one kind of destination.
class VY_API ArchiveSender {
 public:
  virtual ~ArchiveSender();

  // Opens a session, an open one is forgotten first. 0 on success, -1 on failure, nobody is logged in then.
  virtual int Login(const std::string& host, int port, const std::string& account, const std::string& password,
                    const std::string& extra, bool useHttps) = 0;

  // Ends an account's session; one with the paired host lasts until the next Login. Always 0.
  virtual int Logout() = 0;

  // Sends one file. 0: sent, 3: not logged in, others as the destination says.
  virtual int SendFile(const ArchFile& file, bool overwrite) = 0;

  // Sends a directory with all below it. 0: sent, 1: failed, 3: not logged in.
  virtual int SendDir(const std::string& srcDir, bool flag, const std::string& dstDir, bool useTmpDir) = 0;
};

// A new sender, which the caller deletes; null for a destination type without one.
VY_API ArchiveSender* ArchiveSenderFactory(ARCH_DEST_TYPE type);

// Sends through the web API of a recorder.
class VY_API WebapiSender : public ArchiveSender {
 public:
  WebapiSender();
  ~WebapiSender() override;  // logs out

  // Forgets any session.
  void Init(bool useHttps);

  // With empty account and password the pairing with the central-management host is tried first. extra: a one-time code
  // when the account asks for one, else empty.
  int Login(const std::string& host, int port, const std::string& account, const std::string& password,
            const std::string& extra, bool useHttps) override;

  // Gathers what the paired central-management host asks of each request; host and port are then for Login to set.
  // False when host and port are not its.
  bool LoginCmsHost(const std::string& host, int port);

  int Logout() override;

  // Sends a file; a recording with the reason it was made and what triggered it, second by second. 0: sent, or failed
  // in a way that the remote did not answer for (see LastFileDelivered), or refused as its codes 518 and 539; 3: not
  // logged in, or the remote says the session is not valid; 4: refused as its code 487; 1: any other refusal, or no
  // memory.
  int SendFile(const ArchFile& file, bool overwrite) override;

  // Makes the directories below srcDir on the remote under dstDir and sends every file. flag: hidden files too.
  // Symbolic links below srcDir are neither sent nor followed.
  // useTmpDir: upload to dstDir with ".arch" appended, overwriting what is there, and rename it at the end. Stops at
  // the first failure, a directory that cannot be listed among them; what was sent until then stays on the remote.
  int SendDir(const std::string& srcDir, bool flag, const std::string& dstDir, bool useTmpDir) override;

  // Makes directories below a root, in the order given. 0 when the remote answered, whatever it said; -1 when it could
  // not be reached or did not answer in time: it may have done it all the same.
  int CreateRemoteDir(const std::list<std::string>& dirs, const std::string& rootDir, bool overwrite);

  // Renames a directory. Results as of CreateRemoteDir.
  int MoveRemoteDir(const std::string& fromDir, const std::string& toDir);

  // Sends extraData and fileSize bytes of a file in one request whose query is params. Results as of SendFile. Holds 1
  // MiB on the stack: threads that call it need 2 MiB.
  int FileUpload(const std::string& params, const std::string& filePath, unsigned long long fileSize,
                 const std::string& extraData);

  // Whether the last file was sent to its last byte and the remote, after that, acknowledged it: a JSON object without
  // an error and without "success" false.
  bool LastFileDelivered() const { return m_blDelivered; }

  // Of the last request, a file's or one about directories: whether the remote acknowledged it in that way, and the web
  // API error code that it answered with, 0 without one.
  bool LastRequestAcknowledged() const { return m_blAcknowledged; }
  int LastErrorCode() const { return m_iErrorCode; }

 protected:
  // For programs that show progress: called during an upload, sent of total bytes of the file have gone out. More than
  // total when the file grows meanwhile. May throw a std::exception to end the upload, the result is 1 then.
  virtual void OnFileSent(long long sent, long long total);

 private:
  bool IsLoggedIn() const { return !m_strSid.empty() || !m_strHostAuthContent.empty(); }
  void ForgetAnswer();
  // Keeps what the remote answers. Negative when it could not be reached.
  int PostAboutDirs(const std::string& body);

  bool m_blHttps = false;
  std::string m_strSid;              // of an account session; empty without one
  std::string m_strHostCookie;       // of a central-management session
  std::string m_strHostAuthContent;  // of a central-management session; appended to every request
  std::string m_strHost;
  int m_iPort = 0;
  bool m_blDelivered = false;
  bool m_blAcknowledged = false;
  int m_iErrorCode = 0;
  std::string m_strSendingDir;  // while a directory is being sent: its files are opened without following links
};
