#pragma once
// The drive of the "BKUP" and "RSTR" directory requests: data moves between
// a file system's backup or restore object and the caller's streams, with
// the driver's file_lock taken only around each step of the file system,
// so that a slow stream never holds the volume.
#include <string>

#include "fsdriver/backup_object.h"
#include "fsdriver/file_system_driver.h"

// Feeds output streams from `source` until its stream_type is 0. Entered
// and left with file_lock held.
void DriveBackup(FileSystemDriver& driver, FileSystemDriver::BackupObject& source, const BackupRecord& record);

// Makes the entry `leaf` of `parent` from the input streams: the first
// stream carries the attributes that say whether it is a directory, which
// must exist already, or a file, which is created. Entered and left with
// file_lock held.
void DriveRestore(FileSystemDriver& driver, FileSystemDriver::DirectoryObject& parent, const std::u16string& leaf,
                  const BackupRecord& record);
