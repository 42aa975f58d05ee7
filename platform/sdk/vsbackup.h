// The part of the Windows SDK's <vsbackup.h> that the snapshot session uses: the requester's interface of the Volume
// Shadow Copy service, whole and in its published order, since the place of a method in the table is its address.
// Declarations only.
#pragma once

#include <vss.h>
#include <vswriter.h>

// Named by methods that the program does not call; never looked into.
struct IVssExamineWriterMetadata;
struct IVssWriterComponentsExt;

struct IVssBackupComponents : public IUnknown {
    virtual HRESULT STDMETHODCALLTYPE GetWriterComponentsCount(UINT* pcComponents) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWriterComponents(UINT iWriter, IVssWriterComponentsExt** ppWriter) = 0;
    virtual HRESULT STDMETHODCALLTYPE InitializeForBackup(BSTR bstrXML = nullptr) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetBackupState(boolean bSelectComponents, boolean bBackupBootableSystemState,
                                                     VSS_BACKUP_TYPE backupType, boolean bPartialFileSupport = 0) = 0;
    virtual HRESULT STDMETHODCALLTYPE InitializeForRestore(BSTR bstrXML) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetRestoreState(VSS_RESTORE_TYPE restoreType) = 0;
    virtual HRESULT STDMETHODCALLTYPE GatherWriterMetadata(IVssAsync** pAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWriterMetadataCount(UINT* pcWriters) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWriterMetadata(UINT iWriter, VSS_ID* pidInstance,
                                                        IVssExamineWriterMetadata** ppMetadata) = 0;
    virtual HRESULT STDMETHODCALLTYPE FreeWriterMetadata() = 0;
    virtual HRESULT STDMETHODCALLTYPE AddComponent(VSS_ID instanceId, VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                   LPCWSTR wszLogicalPath, LPCWSTR wszComponentName) = 0;
    virtual HRESULT STDMETHODCALLTYPE PrepareForBackup(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE AbortBackup() = 0;
    virtual HRESULT STDMETHODCALLTYPE GatherWriterStatus(IVssAsync** pAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWriterStatusCount(UINT* pcWriters) = 0;
    virtual HRESULT STDMETHODCALLTYPE FreeWriterStatus() = 0;
    virtual HRESULT STDMETHODCALLTYPE GetWriterStatus(UINT iWriter, VSS_ID* pidInstance, VSS_ID* pidWriter,
                                                      BSTR* pbstrWriter, VSS_WRITER_STATE* pnStatus,
                                                      HRESULT* phResultFailure) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetBackupSucceeded(VSS_ID instanceId, VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                         LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                         boolean bSucceded) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetBackupOptions(VSS_ID writerId, VSS_COMPONENT_TYPE ct, LPCWSTR wszLogicalPath,
                                                       LPCWSTR wszComponentName, LPCWSTR wszBackupOptions) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetSelectedForRestore(VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                            LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                            boolean bSelectedForRestore) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetRestoreOptions(VSS_ID writerId, VSS_COMPONENT_TYPE ct, LPCWSTR wszLogicalPath,
                                                        LPCWSTR wszComponentName, LPCWSTR wszRestoreOptions) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetAdditionalRestores(VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                            LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                            boolean bAdditionalRestores) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetPreviousBackupStamp(VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                             LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                             LPCWSTR wszPreviousBackupStamp) = 0;
    virtual HRESULT STDMETHODCALLTYPE SaveAsXML(BSTR* pbstrXML) = 0;
    virtual HRESULT STDMETHODCALLTYPE BackupComplete(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddAlternativeLocationMapping(VSS_ID writerId, VSS_COMPONENT_TYPE componentType,
                                                                    LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                                    LPCWSTR wszPath, LPCWSTR wszFilespec,
                                                                    boolean bRecursive, LPCWSTR wszDestination) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddRestoreSubcomponent(VSS_ID writerId, VSS_COMPONENT_TYPE componentType,
                                                             LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                             LPCWSTR wszSubComponentLogicalPath,
                                                             LPCWSTR wszSubComponentName, boolean bRepair) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetFileRestoreStatus(VSS_ID writerId, VSS_COMPONENT_TYPE ct,
                                                           LPCWSTR wszLogicalPath, LPCWSTR wszComponentName,
                                                           VSS_FILE_RESTORE_STATUS status) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddNewTarget(VSS_ID writerId, VSS_COMPONENT_TYPE ct, LPCWSTR wszLogicalPath,
                                                   LPCWSTR wszComponentName, LPCWSTR wszPath, LPCWSTR wszFileName,
                                                   boolean bRecursive, LPCWSTR wszAlternatePath) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetRangesFilePath(VSS_ID writerId, VSS_COMPONENT_TYPE ct, LPCWSTR wszLogicalPath,
                                                        LPCWSTR wszComponentName, UINT iPartialFile,
                                                        LPCWSTR wszRangesFile) = 0;
    virtual HRESULT STDMETHODCALLTYPE PreRestore(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE PostRestore(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetContext(LONG lContext) = 0;
    virtual HRESULT STDMETHODCALLTYPE StartSnapshotSet(VSS_ID* pSnapshotSetId) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddToSnapshotSet(VSS_PWSZ pwszVolumeName, VSS_ID ProviderId,
                                                       VSS_ID* pidSnapshot) = 0;
    virtual HRESULT STDMETHODCALLTYPE DoSnapshotSet(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE DeleteSnapshots(VSS_ID SourceObjectId, VSS_OBJECT_TYPE eSourceObjectType,
                                                      BOOL bForceDelete, LONG* plDeletedSnapshots,
                                                      VSS_ID* pNondeletedSnapshotID) = 0;
    virtual HRESULT STDMETHODCALLTYPE ImportSnapshots(IVssAsync** ppAsync) = 0;
    virtual HRESULT STDMETHODCALLTYPE BreakSnapshotSet(VSS_ID SnapshotSetId) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetSnapshotProperties(VSS_ID SnapshotId, VSS_SNAPSHOT_PROP* pProp) = 0;
    virtual HRESULT STDMETHODCALLTYPE Query(VSS_ID QueriedObjectId, VSS_OBJECT_TYPE eQueriedObjectType,
                                            VSS_OBJECT_TYPE eReturnedObjectsType, IVssEnumObject** ppEnum) = 0;
    virtual HRESULT STDMETHODCALLTYPE IsVolumeSupported(VSS_ID ProviderId, VSS_PWSZ pwszVolumeName,
                                                        BOOL* pbSupportedByThisProvider) = 0;
    virtual HRESULT STDMETHODCALLTYPE DisableWriterClasses(const VSS_ID* rgWriterClassId, UINT cClassId) = 0;
    virtual HRESULT STDMETHODCALLTYPE EnableWriterClasses(const VSS_ID* rgWriterClassId, UINT cClassId) = 0;
    virtual HRESULT STDMETHODCALLTYPE DisableWriterInstances(const VSS_ID* rgWriterInstanceId, UINT cInstanceId) = 0;
    virtual HRESULT STDMETHODCALLTYPE ExposeSnapshot(VSS_ID SnapshotId, VSS_PWSZ wszPathFromRoot, LONG lAttributes,
                                                     VSS_PWSZ wszExpose, VSS_PWSZ* pwszExposed) = 0;
    virtual HRESULT STDMETHODCALLTYPE RevertToSnapshot(VSS_ID SnapshotId, BOOL bForceDismount) = 0;
    virtual HRESULT STDMETHODCALLTYPE QueryRevertStatus(VSS_PWSZ pwszVolume, IVssAsync** ppAsync) = 0;

protected:
    ~IVssBackupComponents() = default;
};

extern "C" {

// The exports of VSSAPI.DLL behind the two names that a requester uses.
HRESULT WINAPI CreateVssBackupComponentsInternal(IVssBackupComponents** components);
void WINAPI VssFreeSnapshotPropertiesInternal(VSS_SNAPSHOT_PROP* properties);

} // extern "C"

inline HRESULT CreateVssBackupComponents(IVssBackupComponents** components) {
    return CreateVssBackupComponentsInternal(components);
}

inline void VssFreeSnapshotProperties(VSS_SNAPSHOT_PROP* properties) {
    VssFreeSnapshotPropertiesInternal(properties);
}
