// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/file_kinds.h"

#include <algorithm>
#include <vector>

#include "core/text.h"

namespace brenlow {
namespace {

// Lower-case extensions of each kind, sorted, separated by one space. One may be in several.
constexpr std::string_view ArchiveExtensions =
    "0 000 001 002 7z a00 a01 a02 ace agg ain alz apex apz ar arc archiver arduboy arh ari arj ark asr ayt b1 "
    "b64 b6z ba bdoc bh bndl boo bpl bundle bz bz2 bza bzip bzip2 c00 c01 c02 c10 cab car cb7 cba cbr cbt cbz "
    "cdz chi chm chq chw comppkg_hauptwerk_rar cp9 cpgz cpio cpt ctx ctz cxarchive czip daf dar dd deb dgc "
    "dist dl_ dmg dz ecs ecsbx edz efw egg epi f f3z fat fdp fp8 fzbz fzpz gar gca gmz gz gz2 gza gzi gzip ha "
    "hbc hbc2 hbe hfs hki hki1 hki2 hki3 hpk hpkg hxi hxq hxr hxs hxw hyp iadproj ice img ipg ipk ish iso isx "
    "ita ize j jar jex jgz jhh jic jsonlz4 kgb kz layout lbr lemon lha lhzd libzip lit lnx lpkg lqr lz lzh lzm "
    "lzma lzma86 lzo lzx mbr mbz md mint mou mpkg msi msp mzp nex npk nsis ntfs nz oar opk oz p01 p19 p7z pa "
    "pack package pae pak paq6 paq7 paq8 paq8f paq8l paq8p par par2 pax pbi pcv pea pet pf pim pit piz pkg prs "
    "psz pup puz pvmz pwa qda r0 r00 r01 r02 r03 r04 r1 r2 r21 r30 rar rev rk rnc rp9 rpm rss rte rz s00 s01 "
    "s02 s09 s7z sar sbx sdc sdn sea sen sfg sfs sfx sh shar shk shr si sifz sit sitx smpf snappy snb spd spl "
    "spm spt sqx sqz srep stproj swm sy_ tar taz tbz tbz2 tcx tg tgz tlz tlzma tpz trs tx_ txz tz tzst uc2 uha "
    "uzip vem vfs vhd vip vmcz voca vpk vsi vwi wa waff war warc wastickers wdz whl wim wlb wot wux xapk xar "
    "xef xez xip xmcdz xpi xx xz xzm y yz yz1 z z01 z02 z03 z04 zap zfsendtotarget zi zi_ zip zipx zix zl zoo "
    "zpi zsplit zst zw zz";

constexpr std::string_view AudioExtensions =
    "3ga 4mp 5xb 5xe 669 a2m aa aa3 aac abc abm ac3 acd acd-bak acd-zip acm acp act afc agm agr aif aiff "
    "aimppl akp alc als amf amr amxd ang aob apl aria asd at3 aud aup b4s band bdd bidule bnk brstm bun bwg "
    "bww caf caff cda cdda cdo cdr cfa cgrp cidb ckb conform copy cpr csh cts cwb cwp cwt dcf dcm dct dfc dff "
    "dig dm dmsa dmse dra ds dsf dsm dss dtm dts dtshd dvf efs emd emp emx f32 f4a fev flac flm flp fpa frg "
    "ftm ftmx g726 gbs gp5 gpbank gpk gpx groove gsf gsflib gsm h0 h5b h5s hbe ics iff igp igr ins isma iti "
    "itls kar kmp koz krz kt3 l lof logic logicx lwv m3u m3u8 m4a m4b m4r ma1 mbr mdr med mid midi minigsf mka "
    "mmlp mmm mmpz mo3 mod mogg mp3 mpa mpdp mpga mpu mscz mtf mti mtm mtp mui mus musx mux mx3 mx4 mx5 "
    "mx5template mxl myr nbs ncw nkc nki nkm nkx nml npl nra nrt nvf nwc obw odm oga ogg okt oma omf omg omx "
    "opus ovw pandora pca pcast pcg pek phy pk pkf pla ply ppcx psm ptm pts ptt ptx ptxt q1 qcp ra ram rcy rex "
    "rgrp rip rmj rmx rns rol rsn rso rta rti rx2 s3i s3m saf sap sbg sbi sd sdat sds sdt seq sesx sf2 sfk sfl "
    "sfpack sgp shn sib slp smf sng sngx sns sou sph sseq ssnd stap stm sty svd swa sxt syh syn syw syx tak tg "
    "toc trak tta u uax uni ust uw uwf vag vap vc3 vdj vgm vip vlc vmd vox vpl vpm vpr vpw vqf vsq vsqx vyf "
    "w01 w64 wav wave wax wem wfb wfm wfp wma wow wpk wpp wproj wrk wtpt wus wut wv wvc wve xa xfs xm xrns "
    "xspf yookoo zpa zvd";

constexpr std::string_view DatabaseExtensions =
    "$er 3db 4mp acad accdb accdt ade adp apx awdb bib btr cdb clg cma crp cwdb db db2 db3 dbf dbs dbw dbx dcx "
    "df1 df2 df3 df4 dnl dsd dtf fdb fp5 fp7 fw2 fw3 fw4 gdb ind inx ipd itdb jod kdb laccdb ldb lk mdb mde "
    "mdf mdn mn4 modb mpd ncb ndb ndf ndx ns2 ns3 ns4 ns5 nsf ntf od1 od2 od3 od4-9 odb oecl oif ov pdb pdt "
    "phd pho px rfp rpd rsd sd2 sdb sql sqlite ssd svy swd swdb tdb thm usr wd2 wdb xg0 xg1 xg2 xg3 xvu zbd";

constexpr std::string_view DocumentExtensions =
    "_doc _docx _xls _xlsx 123 12m 1st 602 abw act adoc aim ans apkg apt asc ascii ase ast aty awp aws awt aww "
    "bad bbs bdp bdr bean bib bibtex bks bml bna boc brx btd bzabw calca cell charset chord cnm cod crwl css "
    "csv cws cyi dca def del dex dfg dfti dgs dis diz dm dne doc docm docx docxml docz dot dox dropbox dsc dvi "
    "dwd dx dxb dxp edx edxz eio eit emf eml emlx emulecollection epp err ess etf etx euc faq fbl fcf fcs fdf "
    "fdr fds fdt fdx fdxt fft fgs flr fm fods fodt fountain fp fpt frt fwdn gmd gnm gnumeric gpd gpn gsd "
    "gsheet gthr gv hbk hcdt hht highland hs htm html hwp hz idx iil imp inf ini ipf ipspot jarvis jis jnp joe "
    "jp1 jrtf js jtd kes klg knt kon kwd latex lbt license lis lnt log lp2 lst ltr ltx lue luf lwp lxfml lyt "
    "lyx man mar mbox mcw me mell mellel min mnt msg mss mw mwd mwp nb ncss ndoc nfo ngloss njx nmbtemplate "
    "note notes now numbers numbers-tef nwctxt nwm nwp ocr odif odm odo odp ods odt ofl ogw ogwu opeico "
    "openbsd ort ots ott p7s pages pages-tef pdb pdf pdpcmd pfx php pimx plain plantuml pmd pmdx pmo pmv pmvx "
    "prt psw pu pvj pvm pwd pwdp pwdpl pwi pwr qbl qdl qpf qpw quid rad rdf readme rft ris rpt rst rtd rtf "
    "rtfd rtx run rvf rzk rzn saf safetext sam save scc scm scriv scrivx sct scw sdc sdm sdoc sdw se session "
    "sgm shtml sig skcard sla smf sms ssa stc story strings stw sty sublime-project sublime-workspace sxc sxg "
    "sxw tab tdf template tex text textclipping thp tif tiff tlb tm tmd tmdx tmv tmvt tmvx tpc trelby tvj txt "
    "u3i unauth unx uof uos uot upd utf8 utxt vct vnt vw wbk webdoc wki wkq wks wku wn wp wp4 wp5 wp6 wp7 wpa "
    "wpd wpl wps wpt wpw wq1 wq2 wr1 wri wsd wtt wtx xar xbdoc xbplate xdl xl xla xlam xlr xls xlsb xlshtml "
    "xlsm xlsmhtml xlsx xlt xlthtml xltm xltx xml xwp xy xy3 xyp xyw zabw zrtf zw";

constexpr std::string_view ImageExtensions =
    "001 032 2bp 360 3d 3d2 3d4 3da 3dc 3df 3dl 3dm 3dmf 3dmk 3don 3dp 3ds 3dv 3dw 3dx 3dxml 3fr 3mf 411 73i "
    "8ca 8ci 8pbs 8xi 9.png a2c a3d a8s abc abm ac5 ac6 accountpicture-ms acorn acr act adc af2 af3 afdesign "
    "afphoto afx agif agp ai aic ais albm album amdn amf an8 anim animset animset_ingame anm aof aoi apd apm "
    "apng aps apx ari arr art artb artwork arw asat ase aseprite asy atf atl atm avatar avb avif awd awg b3d "
    "bay bbmodel bio bip bld blend blk blkrt blz bm2 bmc bmf bmp bmq bmx bmz bpg br3 br4 br5 br6 br7 brg brk "
    "brn bro brt bsk bss bti bto bvh bw c3d c3z c4 c4d caf cag cal cals cam can cas cbddlp ccb ccp ccx cd5 cdc "
    "cdd cddz cdg cdlx cdmm cdmt cdmtz cdmz cdr cdrapp cds cdsx cdt cdtx cdx ce cel cfg cg cg3 cga cgfx cgm "
    "chr chrparams cid cil cimg cin cit clarify clip cm2 cmf cmod cmr cms cmx cmz cnv colz cor cpbitmap cpc "
    "cpd cpg cps cpt cpx cpy cr2 cr3 crf crw crz cs1 csd csf csm cso csy ct cut cv5 cvg cvi cvs cvx cwt cxi "
    "d3d dae daz dbc dbl dbm dbs dc2 dcm dcr dcs dcx ddb ddd ddrw dds ddt ded des design dff dfs dgt dhs dia "
    "dib dic dicom dif djv djvu dm3 dmc dmi dn dng dpp dpr dpx drawing drawit drf drw drz ds dsa dsb dsd dse "
    "dsf dsg dsi dso dsv dt2 dtw duf dvl dwf dxb e57 ecw egc egg eip emf emz ep epp eps epsf erf esc exp exr "
    "ezdraw f3d fac face facefx facefx_ingame fal fax fbm fbx fc2 fcp fcz fff fg fh10 fh11 fh3 fh4 fh5 fh6 fh7 "
    "fh8 fh9 fhd fif fig fil fits flif flt fmv fnc fp fp3 fpe fpf fpg fpj fpos fppx fpx frm fry fs fsh fsq "
    "ft10 ft11 ft7 ft8 ft9 ftn fun fuse fx fxa fxg fxl fxm fxs fxt g3 g4 gbr gcdp gdraw gem geo gfb gfie ggr "
    "gif gih gim gks glb glf glm glox gls gltf gmbck gmf gmmod gmspr gmt gp4 gpd graffle grn gro grob gry gsd "
    "gstencil gtemplate gvdesign hd2 hdp hdr hdrp hdz heic heif hf hgl hip hipnc hlsl hpg hpgl hpi hpl hr hr2 "
    "hrf hrz hvif hxn i3d ic1 ic2 ic3 ica icb icn ico icon icpr idea ifc iges igi igm igs igt igx iiq ik ilbm "
    "imd img imj info ink insp int iphotoproject ipick ipx irr irrmesh itc2 ithmb iv ive ivr ivue iwi j j2c "
    "j2k j3o j6i jas jb2 jbf jbg jbig jbig2 jbmp jbr jfi jfif jia jif jiff jls jng jp2 jpc jpd jpe jpeg jpf "
    "jpg jpg2 jpg-large jps jpx jsl jtf jwl jxr k25 kc2 kdc kdi kdk kfm kfx kic kmc kmcobj kodak kpg kra ktz "
    "lb lbm ldm lif lip ljp llm lmk lnd lp lps lrpreview lt2 ltz lwo lws lxf lxo lzp m3 m3d ma mac makerbot "
    "mat max maxc mb mbm mc5 mc6 mcs mcz md5anim md5camera md5mesh mdc mdd mdl mdp mdx meb mef mesh met mfw "
    "mgc mgcb mgf mgmf mgmt mgmx mgs mgtx mic miff mip mipmaps mix mmat mng mnm mnr mos mot mp mpf mpj mpo mqo "
    "mrb mrml mrw mrxs ms3d msh msk msp mtl mtx mtz mu mud mvg mxi mxm mxs myl n2 n3d nap ncd ncr nct nef neo "
    "nff nif nlm nm nol nrw nsbta nwm obp obz oc3 oc4 oc5 oci oct odg odi off ogf ol omf oplc ora orf ota otb "
    "otg oti ovp ovr ozb ozj ozt p21 p2z p3d p3l p3m p3r p4d p5d pac pal pano pap par pat pbm pc1 pc2 pc3 pcc "
    "pcd pcs pcx pd pdd pdn pe4 pef pen pfd pfi pfr pfv pgal pgf pgm phy pi1 pi2 pi3 pi4 pi5 pi6 pic picnc "
    "pict pictclipping pigm pigs piskel pix pixadex pixela pjp pjpeg pjpg pkg pl pl0 pl1 pl2 plt ply pm pm3 "
    "pmd pmg pmx pnc png pni pnm pns pnt pntg pobj pop pov pp2 pp4 pp5 ppf ppm ppz prc prefab primitives "
    "primitives_processed prm pro procreate prv prw ps psa psb psd psdc psdx pse psf psid psk psp pspbrush "
    "pspimage ptex ptg ptk pts ptx puppet pvr pwp pws px pxd pxicon pxm pxn pxr pyxel pz2 pz3 pza pzp pzs pzz "
    "qc qcc qif qmg qti qtif qtk r3d rad raf ras raw ray rcl rcs rcu rdc rdl rds reality rft rgb rgba rgf ric "
    "rif riff rig rix rla rle rli rpf rri rs rsb rsr rtl rvg rw2 rwl rwz s s2mv s3g sai sar sbp sbsar sc4model "
    "scg sci scn scp scr sct scu scv sda sdb sdr sep session sfc sff sfw sgd sgi sgn sh3d sh3f shg shp si sid "
    "sig sim sis sk1 sk2 sketch sketchpad skitch skl skm skp skypeemoticonset sld slddrt sm smc smd smf smp "
    "snagitstamps snagstyles sob spa spc spe sph spiff spj spp spr sprite sprite2 sprite3 spu sr sr2 srf srw "
    "ssk stc std ste step stex stn sto stp sumo sun suniff sup sva svf svg svgz svm sxd t2b t2k t3d taac targa "
    "tb0 tbn tcn tddd tex tex.emz texture tfc tg4 tga tgo thing thl thm thumb tif tiff tjp tlc tm2 tmd tme tmo "
    "tn tn1 tn2 tn3 tne tny tpf tpi tpl tps tri trif truck ts1 tsr tub tvm u u3d ufo ufr uga ugoira ums upf "
    "urt usd usdz usertile-ms v v3d v3o v3v vac vbr vda vec veg vert vff vic vicar viff visual "
    "visual_processed vmd vml vmo vna vob vox vp vpd vpe vrimg vrl vrphoto vs vsd vsdm vsdx vsh vso vss vst "
    "vstm vstx vtx vue vvd w3d wb0 wb1 wb2 wbc wbd wbm wbmp wbp wbz wdp webp wft wi wic win wmf wmp wmz wow "
    "wpb wpe wpg wpi wrl wrp wrz wvl x x3d x3f x3g xaf xar xbm xcf xface xmf xmm xmmap xof xpm xpr xr xrf xsf "
    "xsi xv0 xwd y yal yaodl ydl ydr ysp yuv z3d zgm zif zt zvi";

constexpr std::string_view VideoExtensions =
    "264 3g2 3gp 3gp2 3gpp 3gpp2 3mm 3p2 60d 890 aaf aec aecap aegraphic aep aepx aet aetx ajp ale am amc amv "
    "amx anm anx aqt arcut arf asf asx av av3 avb avc avchd avd ave avi avm avp avr avs avv awlive axm axv bdm "
    "bdmv bdt2 bdt3 bik bik2 bin bk2 blz bmc bmk bnp box bs4 bsf bu bvr byu cam camproj camrec camv cdxl ced "
    "cel cine cip clk clpi cme cmmp cmmtpl cmproj cmrec cmv cpi cpvc crec cst cx3 d2v d3v dad dash dat dav db2 "
    "dce dck dcr ddat dif dir divx dlx dmb dmsd dmsd3d dmsm dmsm3d dmss dmx dnc dpa dpg drc dream dsy dv dv4 "
    "dv-avi dvdmedia dvr dvr-ms dvx dxr dzm dzp dzt edl evo exo exp eye eyetv ezt f4f f4m f4p f4v fbr fbz "
    "fcarch fcp fcproject ffd ffm flc flh fli flic flv flx fpdx ftc fvt g2m g64 g64x gcs gfp gifv gl gom grasp "
    "gts gvi gvp gxf h263 h264 hdmov hdv hevc hkm ifo imovielibrary imoviemobile imovieproj imovieproject "
    "infovid inp insv int ircp irf ism ismc ismclip ismv iva ivf ivr ivs izz izzy jdr jmv jnr jss jts jtv jv "
    "k3g kdenlive kmv ktn lrec lrv lsx lvf lvix m15 m1pg m1v m21 m2a m2p m2t m2ts m2v m4e m4u m4v m75 mani "
    "mepx meta mgv mj2 mjp mjpeg mjpg mk3d mkv mmv mnv mob mod modd moff moi moov mov movie mp21 mp2v mp4 mp4v "
    "mpc mpe mpeg mpeg1 mpeg2 mpeg4 mpf mpg mpg2 mpg4 mpgindex mpl mpls mproj mpsub mpv mpv2 mqv msdvd mse msh "
    "mswmm mt2s mts mtv mv mvc mvd mve mvex mvp mvy mxf mxv mys n3r ncor nfv nsv ntp nut nuv nvc ogm ogv ogx "
    "orv osp otrkey pac par pds pgi photoshow pic piv pjs playlist plproj pmf pmv pns ppj prel pro pro4dvd "
    "pro5dvd proqc prproj prtl psb psh pssd psv pva pvr pxv pz qsv qt qtch qtindex qtl qtm qtz r3d ravi rcd "
    "rcproject rcrec rcut rdb rec rm rmd rmp rms rmv rmvb roq rp rsx rts rum rv rvid rvl san sbk sbt sbz scc "
    "scm scn screenflow sdv sec sedprj seq ser sfd sfera sfvidcap siv smi smil smk sml smv snagproj spl sqz "
    "srt ssf stl str stx svi swf swi swt tda3mt tdt theater thp tid tivo tix tmv tod tp tp0 tpd tpr trec trp "
    "ts tsp tsv ttxt tvlayer tvrecording tvs tvshow usf usm v264 vbc vc1 vcpf vcr vcv vdo vdr vdx veg vem vep "
    "vf vft vfw vfz vgz vid video viewlet viv vivo vix vlab vmlf vmlt vob vp3 vp5 vp6 vp7 vpj vr vro vs4 vse "
    "vsh vsp vsr vtt w32 wcp webm wfsp wgi wlmp wm wmd wmmp wmv wmx wot wp3 wpl wsve wtv wvm wvx wxp xej xel "
    "xesc xfl xlmv xml xmv xvid y4m yog yuv zeg zm1 zm2 zm3 zmv";

/// The words of a table, in order.
std::vector<std::string_view> Split(std::string_view table) {
  std::vector<std::string_view> words;
  while (!table.empty()) {
    const std::size_t end = std::min(table.find(' '), table.size());
    words.push_back(table.substr(0, end));
    table.remove_prefix(std::min(end + 1, table.size()));
  }
  std::sort(words.begin(), words.end());
  return words;
}

}  // namespace

bool IsOfKind(TContentKind kind, TStringView name) {
  static const std::vector<std::string_view> tables[] = {
      Split(ArchiveExtensions),  Split(AudioExtensions), Split(DatabaseExtensions),
      Split(DocumentExtensions), Split(ImageExtensions), Split(VideoExtensions),
  };
  const std::string extension = ToUtf8(LowerCase(Extension(name)));
  const auto& table = tables[static_cast<std::size_t>(kind)];
  return !extension.empty() && std::binary_search(table.begin(), table.end(), extension);
}

bool PassesKindFilter(const TFileFilter& filter, TStringView name) {
  if (filter.AllFiles) return true;
  return (filter.Archive && IsOfKind(TContentKind::Archive, name)) ||
         (filter.Audio && IsOfKind(TContentKind::Audio, name)) ||
         (filter.Database && IsOfKind(TContentKind::Database, name)) ||
         (filter.Document && IsOfKind(TContentKind::Document, name)) ||
         (filter.Image && IsOfKind(TContentKind::Image, name)) || (filter.Video && IsOfKind(TContentKind::Video, name));
}

}  // namespace brenlow
