// SPDX-License-Identifier: GPL-3.0-or-later
// The types offered to the user, with their groups.
#include <string>

#include "core/text.h"
#include "table/signatures.h"

namespace brenlow {
namespace {

enum TGroup : int { Archives, Audio, Databases, Documents, Images, Video, Other };

constexpr int FirstGroupText = 5;  // in the section "MasterFileTypes"; the groups follow in order

struct TTypeRow {
  int Group;
  std::string_view Ext;
  std::string_view Caption;
};

constexpr TTypeRow MasterRows[] = {
    {Archives, "7Z", "7-Zip Compressed Archive (*.7z)"},
    {Archives, "ARJ", "ARJ Compressed Archive (*.arj)"},
    {Archives, "BKF", "Windows Backup File (*.bkf)"},
    {Archives, "BZ", "Bzip UNIX Compressed File (*.bz)"},
    {Archives, "BZ2", "Bzip2 UNIX Compressed File (*.bz2)"},
    {Archives, "CAB", "Microsoft Cabinet File (*.cab)"},
    {Archives, "GZ", "Gzip Compressed Archive (*.gz)"},
    {Archives, "GZIP", "Gzip Compressed Archive (*.gzip)"},
    {Archives, "JAR", "Java Archive (*.jar)"},
    {Archives, "LHA", "LHA Compressed Archive (*.lha)"},
    {Archives, "LZH", "LZH Compressed Archive (*.lzh)"},
    {Archives, "RAR", "WinRAR Compressed Archive (*.rar)"},
    {Archives, "TAR", "UNIX Tape Archive (*.tar)"},
    {Archives, "TBZ", "Bzip Compressed Tape Archive (*.tbz)"},
    {Archives, "TGZ", "Gzip Compressed Tape Archive (*.tgz)"},
    {Archives, "Z", "UNIX Compressed Archive File (*.z)"},
    {Archives, "ZIP", "Compressed Archive File (*.zip)"},
    {Audio, "AIF", "Audio Interchange File (*.aif)"},
    {Audio, "AIFC", "Compressed Audio Interchange File (*.aifc)"},
    {Audio, "AIFF", "Audio Interchange File Format (*.aiff)"},
    {Audio, "ASX", "Advanced Stream Redirector File (*.asx)"},
    {Audio, "AU", "UNIX Sound File (*.au)"},
    {Audio, "M3U", "MP3 Playlist (*.m3u)"},
    {Audio, "M4A", "MPEG-4 Audio (*.m4a)"},
    {Audio, "MID", "MIDI-sequention sound (*.mid, *.midi)"},
    {Audio, "MIDI", "MIDI-sequention sound (*.midi)"},
    {Audio, "MP1", "MPEG Audio Stream, Layer 1 (*.mp1)"},
    {Audio, "MP2", "MPEG Audio Stream, Layer 2 (*.mp2)"},
    {Audio, "MP3", "MPEG Audio Stream, Layer 3 (*.mp3)"},
    {Audio, "WAV", "Waveform Audio (*.wav)"},
    {Audio, "WMA", "Windows Media Audio File (*.wma)"},
    {Databases, "DB", "Thumbnail Database (*.db)"},
    {Databases, "MDB", "Microsoft Database (*.mdb)"},
    {Databases, "MDF", "Microsoft SQL Server Database (*.mdf)"},
    {Databases, "MNY", "Microsoft Money Data File (*.mny)"},
    {Documents, "3DS", "3D Studio Scene (*.3ds)"},
    {Documents, "AI", "Adobe Illustrator Drawing (*.ai)"},
    {Documents, "CDR", "CorelDRAW Drawing (*.cdr)"},
    {Documents, "CHM", "Compiled Help File (*.chm)"},
    {Documents, "CSS", "Cascading Style Sheet (*.css)"},
    {Documents, "CSV", "Comma-Separated Values (*.csv)"},
    {Documents, "DOC", "Microsoft Word 97-2003 Document (*.doc)"},
    {Documents, "DOCX", "Microsoft Word Document (*.docx)"},
    {Documents, "DWG", "AutoCAD Drawing (*.dwg)"},
    {Documents, "HLP", "Help File (*.hlp)"},
    {Documents, "HTM", "Hypertext Document (*.htm)"},
    {Documents, "HTML", "Hypertext Document (*.html)"},
    {Documents, "MPP", "Microsoft Project File (*.mpp)"},
    {Documents, "ODP", "OpenDocument Presentation (*.odp)"},
    {Documents, "ODS", "OpenDocument Spreadsheet Document (*.ods)"},
    {Documents, "ODT", "OpenDocument Text Document (*.odt)"},
    {Documents, "PDF", "Adobe Portable Document Format (*.pdf)"},
    {Documents, "P65", "PageMaker 6.5 Document (*.p65)"},
    {Documents, "PMD", "PageMaker Document (*.pmd)"},
    {Documents, "PPT", "Microsoft PowerPoint 97-2003 Presentation (*.ppt)"},
    {Documents, "PPTX", "Microsoft PowerPoint Presentation (*.pptx)"},
    {Documents, "PUB", "Microsoft Publisher Document (*.pub)"},
    {Documents, "QXD", "QuarkXPress Document (*.qxd)"},
    {Documents, "RTF", "Rich Text Format File (*.rtf)"},
    {Documents, "TXT", "Text Document (*.txt)"},
    {Documents, "VDX", "Microsoft Visio XML Drawing (*.vdx)"},
    {Documents, "VSD", "Microsoft Visio Drawing (*.vsd)"},
    {Documents, "WPD", "WordPerfect Document (*.wpd)"},
    {Documents, "WRI", "Windows Write Document (*.wri)"},
    {Documents, "XLS", "Microsoft Excel 97-2003 Worksheet (*.xls)"},
    {Documents, "XLSX", "Microsoft Excel Worksheet (*.xlsx)"},
    {Documents, "XML", "XML Document (*.xml)"},
    {Images, "032", "PostScript Type 32 Font Image (*.032)"},
    {Images, "2BP", "Two-Bit Bitmap (*.2bp)"},
    {Images, "ANI", "Animation File (*.ani)"},
    {Images, "BAY", "Casio Raw Image Format (*.bay)"},
    {Images, "BMP", "Windows OS/2 Bitmap Graphics (*.bmp)"},
    {Images, "BW", "SGI Black and White Image (*.bw)"},
    {Images, "CEL", "Animator Cel Image (*.cel)"},
    {Images, "CR2", "Canon Raw Image Format 2 (*.cr2)"},
    {Images, "CRW", "Canon Raw Image Format (*.crw)"},
    {Images, "CS1", "Capture Shop Raw Image Format (*.cs1)"},
    {Images, "CUR", "Cursor File (*.cur)"},
    {Images, "CUT", "Cue Points and Marker Information (*.cut)"},
    {Images, "DCR", "Kodak Raw Image Format (*.dcr)"},
    {Images, "DIB", "Device Independent Bitmap Graphics (*.dib)"},
    {Images, "DNG", "Digital Negative Raw Image Format (*.dng)"},
    {Images, "EMF", "Enhanced Windows Metafile (*.emf)"},
    {Images, "FAX", "Fax Image (*.fax)"},
    {Images, "GIF", "Graphic Interchange Format (*.gif)"},
    {Images, "ICB", "Targa Bitmap Graphics (*.icb)"},
    {Images, "ICL", "Windows Icon Library (*.icl)"},
    {Images, "ICO", "Windows Icon (*.ico)"},
    {Images, "JFI", "JIFF Image (*.jfi)"},
    {Images, "JFIF", "JPEG File Interchange Format (*.jfif)"},
    {Images, "JIF", "JPEG Image (*.jif)"},
    {Images, "JP2", "JPEG 2000 Image (*.jp2)"},
    {Images, "JPC", "JPEG 2000 Code Stream (*.jpc)"},
    {Images, "JPE", "JPEG Image (*.jpe)"},
    {Images, "JPEG", "JPEG Image (*.jpeg)"},
    {Images, "JPG", "JPEG Image (*.jpe, *.jpeg, *.jpg, *.jfi, *.jfif, *.jif)"},
    {Images, "NEF", "Nikon Raw Image Format (*.nef)"},
    {Images, "MRW", "Minolta Raw Image Format (*.mrw)"},
    {Images, "ORF", "Olympus Raw Image Format (*.orf)"},
    {Images, "PAL", "Compressed File (*.pal)"},
    {Images, "PBM", "Portable Bitmap Graphics (*.pbm)"},
    {Images, "PCD", "Kodak Photo CD Image (*.pcd)"},
    {Images, "PCX", "Paintbrush Bitmap Graphics (*.pcx)"},
    {Images, "PDD", "Adobe PhotoDeluxe Image (*.pdd)"},
    {Images, "PEF", "Pentax Raw Image Format (*.pef)"},
    {Images, "PGM", "Portable Graymap Graphics (*.pgm)"},
    {Images, "PIC", "Softimage Picture (*.pic)"},
    {Images, "PICT", "Macintosh Picture (*.pict)"},
    {Images, "PIX", "Alias Image (*.pix)"},
    {Images, "PNG", "Portable Network Graphic (*.png)"},
    {Images, "PPM", "Portable Pixelmap Graphics (*.ppm)"},
    {Images, "PSD", "Adobe Photoshop Document (*.psd)"},
    {Images, "PSP", "Paint Shop Pro Image (*.psp)"},
    {Images, "RAF", "Fujifilm Raw Image Format (*.raf)"},
    {Images, "RAW", "Raw Image Data (*.raw)"},
    {Images, "RGB", "SGI Color Image (*.rgb)"},
    {Images, "RGBA", "SGI Color Image with Transparency (*.rgba)"},
    {Images, "RLA", "Wavefront Image (*.rla)"},
    {Images, "RLE", "Run-Length Encoded Bitmap Graphics (*.rle)"},
    {Images, "SGI", "SGI Image (*.sgi)"},
    {Images, "TGA", "Targa Bitmap Graphics (*.tga)"},
    {Images, "TIF", "Tagged Image Format File (*.tif)"},
    {Images, "TIFF", "Tagged Image Format File (*.tiff)"},
    {Images, "VST", "Targa Vista Bitmap Graphics (*.vst)"},
    {Images, "X3F", "Sigma Raw Image Format (*.x3f)"},
    {Images, "WMF", "Windows Metafile (*.wmf)"},
    {Video, "3G2", "3GPP2 Multimedia File (*.3g2)"},
    {Video, "3GP", "3GPP Multimedia File (*.3gp)"},
    {Video, "3GP2", "3GPP2 Multimedia File (*.3gp2)"},
    {Video, "3GPP", "3GPP Multimedia File (*.3gpp)"},
    {Video, "ASF", "Advanced Streaming Format (*.asf)"},
    {Video, "AVI", "Audio Video Interleave File (*.avi)"},
    {Video, "DIVX", "DivX Movie (*.divx)"},
    {Video, "FLV", "Flash Video (*.flv)"},
    {Video, "HDMOV", "High Definition QuickTime Movie (*.hdmov)"},
    {Video, "M2TS", "MPEG 2 Transport Stream (*.m2ts)"},
    {Video, "MKV", "Matroska Video (*.mkv)"},
    {Video, "MOV", "QuickTime Movie (*.mov)"},
    {Video, "MP4", "MPEG 4 Movie (*.mp4)"},
    {Video, "MPE", "MPEG Movie (*.mpe)"},
    {Video, "MPEG", "MPEG Movie (*.mpeg)"},
    {Video, "MPG", "MPEG 1 System Stream (*.mpg, *.mpeg)"},
    {Video, "OGM", "Ogg Media File (*.ogm)"},
    {Video, "OGV", "Ogg Video (*.ogv)"},
    {Video, "QT", "QuickTime Movie (*.qt)"},
    {Video, "WMV", "Windows Media Video File (*.wmv)"},
    {Other, "DRV", "Device Driver (*.drv)"},
    {Other, "EML", "E-mail Message (*.eml)"},
    {Other, "INI", "Configuration Settings (*.ini)"},
    {Other, "ISO", "Disc Image (*.iso)"},
    {Other, "MSI", "Windows Installer Package (*.msi)"},
    {Other, "PFM", "Printer Font Metrics (*.pfm)"},
    {Other, "RC", "Resource Script (*.rc)"},
    {Other, "TTF", "TrueType Font (*.ttf)"},
};

/// What the deep analysis can find, group by group. The captions are those of the rows above.
constexpr struct {
  int Group;
  std::string_view Extensions;
} DeepRows[] = {
    {Archives, "BZ CAB GZ RAR ZIP"},
    {Audio, "MID MP3 WAV WMA"},
    {Databases, "MDB MNY"},
    {Documents, "CHM DOC DOCX HLP ODP ODS ODT PDF PPT PPTX RTF WRI XLS XLSX"},
    {Images, "ANI BMP CRW CUR GIF ICO JPG PNG PSD TIF TIFF WMF"},
    {Video, "ASF AVI MOV MPG"},
};

}  // namespace

void TFileSignatures::AddFileType(TMasterFileTypes& types, int group, std::string_view extension,
                                  std::string_view caption) {
  types.push_back({UpperCase(FromUtf8(extension)), FromUtf8(caption), group});
}

void TFileSignatures::BuildMasterFileTypes() {
  for (int group = Archives; group <= Other; ++group) AddFileTypeGroup(FMasterFileTypeGroups, FirstGroupText + group);
  for (const TTypeRow& row : MasterRows) AddFileType(FMasterFileTypes, row.Group, row.Ext, row.Caption);
}

void TFileSignatures::BuildDeepFileTypes() {
  for (int group = Archives; group <= Video; ++group) AddFileTypeGroup(FDeepFileTypeGroups, FirstGroupText + group);
  for (const auto& [group, extensions] : DeepRows) {
    for (std::string_view rest = extensions; !rest.empty();) {
      const std::size_t end = std::min(rest.find(' '), rest.size());
      for (const TTypeRow& row : MasterRows) {
        if (row.Group == group && row.Ext == rest.substr(0, end)) {
          AddFileType(FDeepFileTypes, group, row.Ext, row.Caption);
        }
      }
      rest.remove_prefix(std::min(end + 1, rest.size()));
    }
  }
}

}  // namespace brenlow
