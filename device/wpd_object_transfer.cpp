// Copies between a device and the computer, and moves off the device. A transfer is whole or it did not
// happen: a copy from the device fills a temporary file beside the target and takes the target's place only
// when every byte the device announced has arrived; a copy to the device commits the new object only when
// every byte of the local file went out; a move deletes the very object it copied, and only after that.
#include <shlwapi.h>

#include <cwchar>
#include <memory>
#include <new>

#include "../common/com_memory.h"
#include "../common/trace.h"
#include "child_reader.h"
#include "local_replacement.h"
#include "wpd_object.h"

using Microsoft::WRL::ComPtr;

namespace {

// The object's WPD_OBJECT_SIZE, when the device reports one.
bool ReadObjectSize(IPortableDeviceContent* pContent_in, const wchar_t* pwcharObjectId_in, ULONGLONG& ulonglongSize_out) {
    ComPtr<IPortableDeviceProperties> l_pProperties;
    ComPtr<IPortableDeviceKeyCollection> l_pKeys;
    ComPtr<IPortableDeviceValues> l_pValues;
    return SUCCEEDED(pContent_in->Properties(&l_pProperties)) &&
           SUCCEEDED(CoCreateInstance(CLSID_PortableDeviceKeyCollection, nullptr, CLSCTX_INPROC_SERVER,
                                      IID_PPV_ARGS(&l_pKeys))) &&
           SUCCEEDED(l_pKeys->Add(WPD_OBJECT_SIZE)) &&
           SUCCEEDED(l_pProperties->GetValues(pwcharObjectId_in, l_pKeys.Get(), &l_pValues)) &&
           SUCCEEDED(l_pValues->GetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, &ulonglongSize_out));
}

}  // namespace

HRESULT CDorWEXWPDObject::StreamCopy(IStream* pIStreamDestination_in, IStream* pIStreamSource_in,
                                     DWORD dwordBufferSize_in, ULONGLONG* pulonglongBytesWritten_out,
                                     ULONGLONG ulonglongAnnounced_in) {
    if (pulonglongBytesWritten_out != nullptr) {
        *pulonglongBytesWritten_out = 0;
    }
    std::unique_ptr<BYTE[]> l_pBuffer(new (std::nothrow) BYTE[dwordBufferSize_in == 0 ? 1 : dwordBufferSize_in]);
    if (!l_pBuffer) {
        Trace(L"! Failed to allocate %d bytes for the temporary transfer buffer.\n", dwordBufferSize_in);
        return E_OUTOFMEMORY;  // nothing was copied: that is no success
    }
    HRESULT l_HRESULT = S_OK;
    ULONGLONG l_ulonglongTotal = 0;
    bool l_boolEnd = false;  // the source said so with the last announced byte: the read of nothing is known
    for (;;) {
        ULONG l_ulongRead = 0;
        if (!l_boolEnd) {
            l_HRESULT = pIStreamSource_in->Read(l_pBuffer.get(), dwordBufferSize_in, &l_ulongRead);
            if (FAILED(l_HRESULT)) {
                Trace(L"! Failed to read %d bytes from the source stream, l_HRESULT = 0x%lx\n", dwordBufferSize_in,
                      l_HRESULT);
                return l_HRESULT;
            }
            l_boolEnd = l_HRESULT == S_FALSE && l_ulongRead != 0 && l_ulonglongTotal + l_ulongRead == ulonglongAnnounced_in;
        }
        // What every read gave is written, the final nothing too, and the last write's result is the answer.
        ULONG l_ulongWritten = 0;
        l_HRESULT = pIStreamDestination_in->Write(l_pBuffer.get(), l_ulongRead, &l_ulongWritten);
        if (FAILED(l_HRESULT)) {
            Trace(L"! Failed to write %d bytes of object data to the destination stream, l_HRESULT = 0x%lx\n",
                  l_ulongRead, l_HRESULT);
            return l_HRESULT;
        }
        l_ulonglongTotal += l_ulongWritten;
        if (pulonglongBytesWritten_out != nullptr) {
            *pulonglongBytesWritten_out = l_ulonglongTotal;
        }
        // A short read is not the end: only a read of nothing is.
        if (l_ulongRead == 0) {
            break;
        }
        Trace(L"Read %d bytes from the source stream...Wrote %d bytes to the destination stream...\n", l_ulongRead,
              l_ulongWritten);
    }
    return l_HRESULT;
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice(const wchar_t* pwcharObjectStoragePath_in, const wchar_t* pwcharFileToCopy_in,
                                           const wchar_t* pwcharWriteToken_in, DWORD) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice enter.\n");
    if (RefusesChanges(L"CDorWEXWPDObject::CopyFileToDevice")) {
        return _bstr_t(kWriteDenied);
    }
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return CopyFileToDevice3(pwcharObjectStoragePath_in, pwcharFileToCopy_in, pwcharWriteToken_in);
    case Manufacturer::APPLE:
        return CopyFileToDevice2(pwcharObjectStoragePath_in, pwcharFileToCopy_in, pwcharWriteToken_in);
    default:
        return CopyFileToDevice1(pwcharObjectStoragePath_in, pwcharFileToCopy_in);
    }
}

_bstr_t CDorWEXWPDObject::CopyFileToDevice1(const wchar_t* pwcharObjectStoragePath_in,
                                            const wchar_t* pwcharFileToCopy_in) {
    Trace(L"CDorWEXWPDObject::CopyFileToDevice1 enter.\n");
    if (!m_pIPortableDevice) {
        return _bstr_t(L"No portable device object, reason=1");
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    const _bstr_t l_bstr_tFolder = SUCCEEDED(l_HRESULT) && pwcharObjectStoragePath_in != nullptr
                                       ? ResolveFolderOrStorageRoot(pwcharObjectStoragePath_in, LOOKUP_COPY_TO)
                                       : _bstr_t();
    if (l_bstr_tFolder.length() == 0) {
        return _bstr_t(L"Could not obtain portable device object id, reason=2");
    }
    ComPtr<IStream> l_pFileStream;
    if (pwcharFileToCopy_in == nullptr ||
        FAILED(SHCreateStreamOnFileW(pwcharFileToCopy_in, STGM_READ | STGM_SHARE_DENY_WRITE, &l_pFileStream))) {
        return _bstr_t(L"Could not create stream for source file, reason=3");
    }

    // The properties of the new object.
    ComPtr<IPortableDeviceValues> l_pValues;
    ULONGLONG l_ulonglongFileSize = 0;
    l_HRESULT = NewValues(l_pValues);
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_PARENT_ID, l_bstr_tFolder);
    }
    if (SUCCEEDED(l_HRESULT)) {
        STATSTG l_STATSTG{};
        l_HRESULT = l_pFileStream->Stat(&l_STATSTG, STATFLAG_NONAME);
        l_ulonglongFileSize = l_STATSTG.cbSize.QuadPart;
        if (SUCCEEDED(l_HRESULT)) {
            l_HRESULT = l_pValues->SetUnsignedLargeIntegerValue(WPD_OBJECT_SIZE, l_ulonglongFileSize);
        }
    }
    if (SUCCEEDED(l_HRESULT)) {
        wchar_t l_wcharName[MAX_PATH + 1];
        wchar_t l_wcharExtension[MAX_PATH + 1];
        if (_wsplitpath_s(pwcharFileToCopy_in, nullptr, 0, nullptr, 0, l_wcharName, _countof(l_wcharName),
                          l_wcharExtension, _countof(l_wcharExtension)) == 0) {
            const std::wstring l_wstringOriginal = std::wstring(l_wcharName) + l_wcharExtension;
            l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_ORIGINAL_FILE_NAME, l_wstringOriginal.c_str());
            if (SUCCEEDED(l_HRESULT)) {
                l_HRESULT = l_pValues->SetStringValue(WPD_OBJECT_NAME, l_wcharName);
            }
        }
    }
    if (SUCCEEDED(l_HRESULT) && wcsstr(pwcharFileToCopy_in, kTrackerFile) != nullptr) {
        l_HRESULT = l_pValues->SetBoolValue(WPD_OBJECT_ISSYSTEM, TRUE);  // the tracker file is a system object
    }
    // Some devices refuse a new object that does not say what it is.
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetGuidValue(WPD_OBJECT_CONTENT_TYPE, WPD_CONTENT_TYPE_GENERIC_FILE);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pValues->SetGuidValue(WPD_OBJECT_FORMAT, WPD_OBJECT_FORMAT_UNSPECIFIED);
    }
    if (FAILED(l_HRESULT)) {
        return _bstr_t(L"Could not create required properties for target file content, reason=4");
    }

    ComPtr<IStream> l_pDeviceStream;
    DWORD l_dwordBufferSize = 0;
    if (FAILED(l_pContent->CreateObjectWithPropertiesAndData(l_pValues.Get(), &l_pDeviceStream, &l_dwordBufferSize,
                                                             nullptr))) {
        return _bstr_t(L"Could not create properties and data for target file, reason=5");
    }
    ComPtr<IPortableDeviceDataStream> l_pDataStream;
    if (FAILED(l_pDeviceStream.As(&l_pDataStream))) {
        return _bstr_t(L"Could not QI on target file stream, reason=6");
    }
    ULONGLONG l_ulonglongWritten = 0;
    l_HRESULT = StreamCopy(l_pDeviceStream.Get(), l_pFileStream.Get(), l_dwordBufferSize, &l_ulonglongWritten);
    // A local file that ended early or grew while it was read would make an object that is not the file:
    // the transfer is abandoned rather than committed.
    if (SUCCEEDED(l_HRESULT) && l_ulonglongWritten != l_ulonglongFileSize) {
        Trace(L"CDorWEXWPDObject::CopyFileToDevice1 sent %I64u of %I64u bytes.\n", l_ulonglongWritten,
              l_ulonglongFileSize);
        l_HRESULT = HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);
    }
    if (FAILED(l_HRESULT)) {
        l_pDeviceStream->Revert();
        return _bstr_t(L"StreamCopy failed, reason=7");
    }
    if (FAILED(l_pDeviceStream->Commit(STGC_DEFAULT))) {
        return _bstr_t(L"Commit failed, reason=8");
    }
    CoTaskString l_NewObjectId;
    l_pDataStream->GetObjectID(&l_NewObjectId);
    return _bstr_t(L"1");
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice(const wchar_t* pwcharObjectStoragePath_in,
                                             const wchar_t* pwcharLocalFileName_in) {
    Trace(L"CDorWEXWPDObject::CopyFileFromDevice enter.\n");
    switch (Identity()->m_eManufacturer) {
    case Manufacturer::BLACKBERRY:
        return CopyFileFromDevice3(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    case Manufacturer::APPLE:
        return CopyFileFromDevice2(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    default:
        Trace(L"CDorWEXWPDObject::CopyFileFromDevice1 enter.\n");
        return CopyFileFromDevice1(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
}

HRESULT CDorWEXWPDObject::CopyFileFromDevice1(const wchar_t* pwcharObjectStoragePath_in,
                                              const wchar_t* pwcharLocalFileName_in) {
    if (pwcharObjectStoragePath_in == nullptr || pwcharLocalFileName_in == nullptr) {
        return E_INVALIDARG;
    }
    dorwex::ObjectFacts l_Facts;
    const _bstr_t l_bstr_tObject = FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_COPY_FROM, nullptr, &l_Facts);
    if (l_bstr_tObject.length() == 0) {
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    }
    return CopyObjectToLocalFile(l_bstr_tObject, pwcharLocalFileName_in, l_Facts.sized ? &l_Facts.size : nullptr);
}

HRESULT CDorWEXWPDObject::CopyObjectToLocalFile(const wchar_t* pwcharObjectId_in, const wchar_t* pwcharLocalFileName_in,
                                                const ULONGLONG* pulonglongSize_in) {
    if (!m_pIPortableDevice) {
        return E_UNEXPECTED;  // no session: nothing can arrive
    }
    ComPtr<IPortableDeviceContent> l_pContent;
    ComPtr<IPortableDeviceResources> l_pResources;
    ComPtr<IStream> l_pDeviceStream;
    DWORD l_dwordBufferSize = 0;
    ULONGLONG l_ulonglongSize = pulonglongSize_in != nullptr ? *pulonglongSize_in : 0;
    bool l_boolSizeKnown = pulonglongSize_in != nullptr;
    HRESULT l_HRESULT = m_pIPortableDevice->Content(&l_pContent);
    if (SUCCEEDED(l_HRESULT)) {
        l_boolSizeKnown = l_boolSizeKnown || ReadObjectSize(l_pContent.Get(), pwcharObjectId_in, l_ulonglongSize);
        l_HRESULT = l_pContent->Transfer(&l_pResources);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_pResources->GetStream(pwcharObjectId_in, WPD_RESOURCE_DEFAULT, STGM_READ, &l_dwordBufferSize,
                                            &l_pDeviceStream);
    }
    if (FAILED(l_HRESULT)) {
        return l_HRESULT;
    }
    CDorWEXLocalReplacement l_Replacement(pwcharLocalFileName_in);
    l_HRESULT = l_Replacement.Created();
    ULONGLONG l_ulonglongWritten = 0;
    {
        ComPtr<IStream> l_pFileStream;
        if (SUCCEEDED(l_HRESULT)) {
            l_HRESULT = SHCreateStreamOnFileW(l_Replacement.TemporaryPath(), STGM_WRITE | STGM_SHARE_DENY_WRITE,
                                              &l_pFileStream);
        }
        if (SUCCEEDED(l_HRESULT)) {
            l_HRESULT = StreamCopy(l_pFileStream.Get(), l_pDeviceStream.Get(), l_dwordBufferSize, &l_ulonglongWritten,
                                   l_boolSizeKnown ? l_ulonglongSize : ~0ull);
        }
    }  // the file is closed before it takes the target's place
    // A stream that ended before the object did is a transfer that broke off, not a smaller file.
    if (SUCCEEDED(l_HRESULT) && l_boolSizeKnown && l_ulonglongWritten != l_ulonglongSize) {
        Trace(L"CDorWEXWPDObject::CopyFileFromDevice1 received %I64u of %I64u bytes.\n", l_ulonglongWritten,
              l_ulonglongSize);
        l_HRESULT = HRESULT_FROM_WIN32(ERROR_HANDLE_EOF);
    }
    if (SUCCEEDED(l_HRESULT)) {
        l_HRESULT = l_Replacement.Commit();
    }
    return l_HRESULT;
}

// Copy, then delete: the object deleted is the one copied (its id, not its path looked up again), and only
// after the copy arrived whole. 1 when the copy succeeded, whatever the delete did. A device open for reading
// only cannot delete: nothing is copied and the answer is 0, so no caller takes the source for gone.
int CDorWEXWPDObject::MoveFileFromDevice(const wchar_t* pwcharObjectStoragePath_in,
                                         const wchar_t* pwcharLocalFileName_in) {
    if (RefusesChanges(L"CDorWEXWPDObject::MoveFileFromDevice")) {
        return 0;
    }
    if (Identity()->m_eManufacturer == Manufacturer::APPLE) {
        return MoveFileFromDevice2(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
    if (Identity()->m_eManufacturer == Manufacturer::BLACKBERRY) {
        return MoveFileFromDevice3(pwcharObjectStoragePath_in, pwcharLocalFileName_in);
    }
    dorwex::ObjectFacts l_Facts;
    const _bstr_t l_bstr_tObject = pwcharObjectStoragePath_in != nullptr
                                       ? FindObjectByPath(pwcharObjectStoragePath_in, LOOKUP_MOVE, nullptr, &l_Facts)
                                       : _bstr_t();
    if (l_bstr_tObject.length() == 0 || pwcharLocalFileName_in == nullptr) {
        return 0;
    }
    if (FAILED(CopyObjectToLocalFile(l_bstr_tObject, pwcharLocalFileName_in, l_Facts.sized ? &l_Facts.size : nullptr))) {
        return 0;
    }
    // The file has arrived: a delete that fails does not undo the move's success.
    DeleteWPDObject(l_bstr_tObject, Identity()->m_bstr_tDeviceId);
    return 1;
}
